#include "ConversationListModel.h"

#include "engine/EngineStore.h"

ConversationListModel::ConversationListModel(EngineStore *store)
    : QAbstractListModel(store), m_store(store)
{
}

int ConversationListModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(m_store->conversations().size());
}

QVariant ConversationListModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= rowCount())
        return {};
    const Conversation &conversation = m_store->conversations().at(index.row());
    switch (role) {
    case IdRole:
        return uuidText(conversation.id);
    case Qt::DisplayRole:
    case TitleRole:
        return conversation.title;
    case SelectedRole:
        return m_store->selectedID() == conversation.id;
    default:
        return {};
    }
}

QHash<int, QByteArray> ConversationListModel::roleNames() const
{
    return {{IdRole, "conversationId"}, {TitleRole, "title"}, {SelectedRole, "selected"}};
}

void ConversationListModel::beginInsert(int index)
{
    beginInsertRows({}, index, index);
}

void ConversationListModel::finishInsert()
{
    endInsertRows();
    emit countChanged();
}

void ConversationListModel::conversationChanged(int index, const QList<int> &roles)
{
    if (index < 0 || index >= rowCount())
        return;
    const QModelIndex changed = this->index(index);
    emit dataChanged(changed, changed, roles);
}

void ConversationListModel::selectionMoved(int previousIndex, int currentIndex)
{
    conversationChanged(previousIndex, {SelectedRole});
    if (currentIndex != previousIndex)
        conversationChanged(currentIndex, {SelectedRole});
}
