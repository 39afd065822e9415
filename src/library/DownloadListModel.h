#pragma once

#include "model/DownloadState.h"

#include <QAbstractListModel>
#include <QList>

// Running downloads for the library sheet, in the engine's order.
class DownloadListModel : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)
public:
    enum Role { NameRole = Qt::UserRole + 1, BytesRole, TotalRole, FractionRole, ReceivedLabelRole };

    using QAbstractListModel::QAbstractListModel;

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;
    int count() const { return static_cast<int>(m_downloads.size()); }

    // Replaces the list; a download that keeps its place only updates its figures.
    void update(const QList<DownloadState> &downloads);

signals:
    void countChanged();

private:
    QList<DownloadState> m_downloads;
};
