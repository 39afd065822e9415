#include "MessageListModel.h"

#include "ConversationListModel.h"

MessageListModel::MessageListModel(const ConversationListModel *conversations, QObject *parent)
    : QAbstractListModel(parent), m_conversations(conversations)
{
    connect(conversations, &ConversationListModel::selectionAboutToChange, this, [this] { beginResetModel(); });
    connect(conversations, &ConversationListModel::selectionChanged, this, [this] {
        endResetModel();
        emit countChanged();
        emit lastTextChanged();
    });
    connect(conversations, &ConversationListModel::messageAboutToBeAppended, this, [this](int index, int messageIndex) {
        m_changing = index == m_conversations->selectedIndex();
        if (m_changing)
            beginInsertRows({}, messageIndex, messageIndex);
    });
    connect(conversations, &ConversationListModel::messageAppended, this, [this] {
        if (!m_changing)
            return;
        m_changing = false;
        endInsertRows();
        emit countChanged();
        emit lastTextChanged();
    });
    connect(conversations, &ConversationListModel::messagesAboutToBeRemoved, this,
            [this](int index, int first, int last) {
                m_changing = index == m_conversations->selectedIndex();
                if (m_changing)
                    beginRemoveRows({}, first, last);
            });
    connect(conversations, &ConversationListModel::messagesRemoved, this, [this] {
        if (!m_changing)
            return;
        m_changing = false;
        endRemoveRows();
        emit countChanged();
        emit lastTextChanged();
    });
    connect(conversations, &ConversationListModel::messagesAboutToBeReplaced, this, [this](int index) {
        m_changing = index == m_conversations->selectedIndex();
        if (m_changing)
            beginResetModel();
    });
    connect(conversations, &ConversationListModel::messagesReplaced, this, [this] {
        if (!m_changing)
            return;
        m_changing = false;
        endResetModel();
        emit countChanged();
        emit lastTextChanged();
    });
    connect(conversations, &ConversationListModel::messageTextChanged, this, [this](int index, int messageIndex) {
        if (index != m_conversations->selectedIndex())
            return;
        const QModelIndex changed = this->index(messageIndex);
        emit dataChanged(changed, changed, {TextRole, Qt::DisplayRole, HasTextRole});
        if (messageIndex == rowCount() - 1)
            emit lastTextChanged();
    });
}

const QList<ChatMessage> *MessageListModel::shownMessages() const
{
    const int selected = m_conversations->selectedIndex();
    return selected < 0 ? nullptr : &m_conversations->conversations().at(selected).messages;
}

int MessageListModel::rowCount(const QModelIndex &parent) const
{
    const QList<ChatMessage> *messages = shownMessages();
    return parent.isValid() || !messages ? 0 : static_cast<int>(messages->size());
}

QVariant MessageListModel::data(const QModelIndex &index, int role) const
{
    const QList<ChatMessage> *messages = shownMessages();
    if (!index.isValid() || !messages || index.row() >= messages->size())
        return {};
    const ChatMessage &message = messages->at(index.row());
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
    return {{IdRole, "messageId"},      {RoleRole, "role"},     {TextRole, "text"},      {ImageRole, "image"},
            {HasImageRole, "hasImage"}, {IsUserRole, "isUser"}, {HasTextRole, "hasText"}};
}

QString MessageListModel::lastText() const
{
    const QList<ChatMessage> *messages = shownMessages();
    return !messages || messages->isEmpty() ? QString() : messages->last().text;
}

QString MessageListModel::textAt(int row) const
{
    const QList<ChatMessage> *messages = shownMessages();
    return !messages || row < 0 || row >= messages->size() ? QString() : messages->at(row).text;
}
