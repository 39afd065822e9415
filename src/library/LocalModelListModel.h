#pragma once

#include "model/LocalModel.h"

#include <QAbstractListModel>
#include <QList>

// The engine's model files for the library sheet, in the engine's order, with the one
// that is loaded.
class LocalModelListModel : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)
    Q_PROPERTY(int modelCount READ modelCount NOTIFY countChanged)
public:
    enum Role {
        NameRole = Qt::UserRole + 1,
        TitleRole,
        SizeRole,
        SizeLabelRole,
        ProjectorRole,
        LoadedRole,
        ActionEnabledRole,
        DetailsRole,
        KvCacheRole
    };

    using QAbstractListModel::QAbstractListModel;

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;
    int count() const { return static_cast<int>(m_models.size()); }
    // Entries that are models of their own (image projectors left out).
    int modelCount() const;

    // Replaces the list and the loaded file's name; rows that stay the same are not
    // touched.
    void update(const QList<LocalModel> &models, const QString &loadedFile);
    // The context the library would load models with (0: each model's maximum), for
    // the memory their KV cache would take.
    void setContextChoice(int tokens);

signals:
    void countChanged();

private:
    bool isLoaded(const LocalModel &model) const { return model.name == m_loadedFile; }

    QList<LocalModel> m_models;
    QString m_loadedFile;
    int m_contextChoice = 0;
};
