#include "MessageListModel.h"

#include "engine/EngineStore.h"

MessageListModel::MessageListModel(EngineStore *store)
    : QAbstractListModel(store), m_store(store)
{
}

int MessageListModel::rowCount(const QModelIndex &parent) const
{
    if (parent.isValid())
        return 0;
    const int selected = m_store->selectedIndex();
    return selected < 0 ? 0 : static_cast<int>(m_store->conversations().at(selected).messages.size());
}

QVariant MessageListModel::data(const QModelIndex &index, int role) const
{
    const int selected = m_store->selectedIndex();
    if (!index.isValid() || selected < 0)
        return {};
    const auto &messages = m_store->conversations().at(selected).messages;
    if (index.row() >= messages.size())
        return {};
    const ChatMessage &message = messages.at(index.row());
    switch (role) {
    case IdRole:
        return uuidText(message.id);
    case RoleRole:
        return message.role;
    case Qt::DisplayRole:
    case TextRole:
        return message.text;
    case ImageRole:
        return message.image.value_or(QString());
    case HasImageRole:
        return message.image.has_value();
    case IsUserRole:
        return message.role == QLatin1String("user");
    case HasTextRole:
        return !message.text.isEmpty();
    default:
        return {};
    }
}

QHash<int, QByteArray> MessageListModel::roleNames() const
{
    return {{IdRole, "messageId"}, {RoleRole, "role"},         {TextRole, "text"},
            {ImageRole, "image"},  {HasImageRole, "hasImage"}, {IsUserRole, "isUser"},
            {HasTextRole, "hasText"}};
}

QString MessageListModel::lastText() const
{
    const int selected = m_store->selectedIndex();
    if (selected < 0)
        return {};
    const auto &messages = m_store->conversations().at(selected).messages;
    return messages.isEmpty() ? QString() : messages.last().text;
}

void MessageListModel::beginSelectionChange()
{
    beginResetModel();
}

void MessageListModel::finishSelectionChange()
{
    endResetModel();
    emit countChanged();
    emit lastTextChanged();
}

void MessageListModel::beginAppend(int index)
{
    beginInsertRows({}, index, index);
}

void MessageListModel::finishAppend()
{
    endInsertRows();
    emit countChanged();
    emit lastTextChanged();
}

void MessageListModel::messageTextChanged(int index)
{
    const QModelIndex changed = this->index(index);
    emit dataChanged(changed, changed, {TextRole, Qt::DisplayRole, HasTextRole});
    if (index == rowCount() - 1)
        emit lastTextChanged();
}
