#include "ConversationListModel.h"

ConversationListModel::ConversationListModel(QList<Conversation> conversations, QObject *parent)
    : QAbstractListModel(parent), m_conversations(std::move(conversations))
{
}

int ConversationListModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : count();
}

QVariant ConversationListModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= count())
        return {};
    const Conversation &conversation = m_conversations.at(index.row());
    switch (role) {
    case IdRole:
        return uuidText(conversation.id);
    case Qt::DisplayRole:
    case TitleRole:
        return conversation.title;
    case SelectedRole:
        return m_selectedID == conversation.id;
    case PinnedRole:
        return conversation.pinned;
    default:
        return {};
    }
}

QHash<int, QByteArray> ConversationListModel::roleNames() const
{
    return {{IdRole, "conversationId"}, {TitleRole, "title"}, {SelectedRole, "selected"}, {PinnedRole, "pinned"}};
}

int ConversationListModel::indexOf(const QUuid &id) const
{
    for (int index = 0; index < count(); ++index) {
        if (m_conversations.at(index).id == id)
            return index;
    }
    return -1;
}

int ConversationListModel::pinnedCount() const
{
    int pinned = 0;
    while (pinned < count() && m_conversations.at(pinned).pinned)
        ++pinned;
    return pinned;
}

void ConversationListModel::findSelectedIndex()
{
    m_selectedIndex = -1;
    if (!m_selectedID)
        return;
    for (int index = 0; index < count(); ++index) {
        if (m_conversations.at(index).id == *m_selectedID) {
            m_selectedIndex = index;
            return;
        }
    }
}

void ConversationListModel::conversationChanged(int index, const QList<int> &roles)
{
    if (index < 0 || index >= count())
        return;
    const QModelIndex changed = this->index(index);
    emit dataChanged(changed, changed, roles);
}

void ConversationListModel::insert(int index, const Conversation &conversation)
{
    beginInsertRows({}, index, index);
    m_conversations.insert(index, conversation);
    findSelectedIndex();
    endInsertRows();
    emit countChanged();
}

void ConversationListModel::remove(int index)
{
    beginRemoveRows({}, index, index);
    m_conversations.removeAt(index);
    findSelectedIndex();
    endRemoveRows();
    emit countChanged();
}

void ConversationListModel::move(int from, int to)
{
    if (from == to)
        return;
    // Qt counts the destination in the rows before the move.
    beginMoveRows({}, from, from, {}, to > from ? to + 1 : to);
    m_conversations.move(from, to);
    findSelectedIndex();
    endMoveRows();
}

void ConversationListModel::select(const std::optional<QUuid> &id)
{
    if (m_selectedID == id)
        return;
    const int previousIndex = m_selectedIndex;
    // The messages shown are replaced while the list still shows the old conversation.
    emit selectionAboutToChange();
    m_selectedID = id;
    findSelectedIndex();
    emit selectionChanged();
    conversationChanged(previousIndex, {SelectedRole});
    if (m_selectedIndex != previousIndex)
        conversationChanged(m_selectedIndex, {SelectedRole});
}

void ConversationListModel::setTitle(int index, const QString &title)
{
    m_conversations[index].title = title;
    conversationChanged(index, {TitleRole, Qt::DisplayRole});
}

void ConversationListModel::setPinned(int index, bool pinned)
{
    m_conversations[index].pinned = pinned;
    conversationChanged(index, {PinnedRole});
}

void ConversationListModel::setSystem(int index, const std::optional<QString> &system)
{
    m_conversations[index].system = system;
    conversationChanged(index);
}

void ConversationListModel::appendMessage(int index, const ChatMessage &message)
{
    emit messageAboutToBeAppended(index, static_cast<int>(m_conversations.at(index).messages.size()));
    m_conversations[index].messages.append(message);
    emit messageAppended(index);
    conversationChanged(index);
}

void ConversationListModel::setMessageText(int index, int messageIndex, const QString &text)
{
    m_conversations[index].messages[messageIndex].text = text;
    emit messageTextChanged(index, messageIndex);
    conversationChanged(index);
}

void ConversationListModel::appendMessageText(int index, int messageIndex, const QString &piece)
{
    m_conversations[index].messages[messageIndex].text.append(piece);
    emit messageTextChanged(index, messageIndex);
    conversationChanged(index);
}

void ConversationListModel::setMessageThinkingSeconds(int index, int messageIndex, qint64 seconds)
{
    m_conversations[index].messages[messageIndex].thinkingSeconds = seconds;
    emit messageThinkingSecondsChanged(index, messageIndex);
}

void ConversationListModel::removeMessagesFrom(int index, int messageIndex)
{
    const int last = static_cast<int>(m_conversations.at(index).messages.size()) - 1;
    if (messageIndex > last)
        return;
    emit messagesAboutToBeRemoved(index, messageIndex, last);
    m_conversations[index].messages.resize(messageIndex);
    emit messagesRemoved(index);
    conversationChanged(index);
}

void ConversationListModel::replaceMessages(int index, const QList<ChatMessage> &messages)
{
    emit messagesAboutToBeReplaced(index);
    m_conversations[index].messages = messages;
    emit messagesReplaced(index);
    conversationChanged(index);
}
