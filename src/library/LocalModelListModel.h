#pragma once

#include "model/LocalModel.h"

#include <QAbstractListModel>
#include <QList>

// The engine's model files for the library sheet, in the engine's order.
class LocalModelListModel : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)
    Q_PROPERTY(int modelCount READ modelCount NOTIFY countChanged)
public:
    enum Role { NameRole = Qt::UserRole + 1, TitleRole, SizeRole, SizeLabelRole, ProjectorRole };

    using QAbstractListModel::QAbstractListModel;

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;
    int count() const { return static_cast<int>(m_models.size()); }
    // Entries that are models of their own (image projectors left out).
    int modelCount() const;

    // Replaces the list; rows that stay the same are not touched.
    void update(const QList<LocalModel> &models);

signals:
    void countChanged();

private:
    QList<LocalModel> m_models;
};
