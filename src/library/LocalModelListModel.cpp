#include "LocalModelListModel.h"

#include <algorithm>
#include <utility>

int LocalModelListModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : count();
}

QVariant LocalModelListModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= count())
        return {};
    const LocalModel &model = m_models.at(index.row());
    switch (role) {
    case Qt::DisplayRole:
    case NameRole:
        return model.name;
    case TitleRole:
        return model.title();
    case SizeRole:
        return model.size;
    case SizeLabelRole:
        return model.sizeLabel();
    case ProjectorRole:
        return model.projector;
    case LoadedRole:
        return isLoaded(model);
    case ActionEnabledRole:
        // Only a size of exactly zero blocks Load; a negative size still allows it.
        return isLoaded(model) || model.size != 0;
    case DetailsRole:
        return model.detailsLabel();
    case KvCacheRole:
        return model.kvCacheLabel(m_contextChoice);
    default:
        return {};
    }
}

QHash<int, QByteArray> LocalModelListModel::roleNames() const
{
    return {{NameRole, "name"},
            {TitleRole, "title"},
            {SizeRole, "size"},
            {SizeLabelRole, "sizeLabel"},
            {ProjectorRole, "projector"},
            {LoadedRole, "loaded"},
            {ActionEnabledRole, "actionEnabled"},
            {DetailsRole, "details"},
            {KvCacheRole, "kvCache"}};
}

int LocalModelListModel::modelCount() const
{
    return static_cast<int>(
        std::count_if(m_models.begin(), m_models.end(), [](const LocalModel &model) { return !model.projector; }));
}

void LocalModelListModel::update(const QList<LocalModel> &models, const QString &loadedFile)
{
    const bool sameNames = models.size() == m_models.size()
        && std::equal(models.begin(), models.end(), m_models.begin(),
                      [](const LocalModel &a, const LocalModel &b) { return a.name == b.name; });
    if (!sameNames) {
        beginResetModel();
        m_models = models;
        m_loadedFile = loadedFile;
        endResetModel();
        emit countChanged();
        return;
    }
    const QString previousLoadedFile = std::exchange(m_loadedFile, loadedFile);
    for (int row = 0; row < models.size(); ++row) {
        const LocalModel &incoming = models.at(row);
        LocalModel &current = m_models[row];
        const bool loadedChanged = (current.name == previousLoadedFile) != (current.name == loadedFile);
        if (incoming == current && !loadedChanged)
            continue;
        const bool projectorChanged = incoming.projector != current.projector;
        current = incoming;
        emit dataChanged(index(row), index(row));
        if (projectorChanged)
            emit countChanged();
    }
}

void LocalModelListModel::setContextChoice(int tokens)
{
    if (m_contextChoice == tokens)
        return;
    m_contextChoice = tokens;
    if (!m_models.isEmpty())
        emit dataChanged(index(0), index(count() - 1), {KvCacheRole});
}
