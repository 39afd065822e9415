#include "MessageListModel.h"

#include "ConversationListModel.h"
#include "model/ReplyText.h"

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
        emit dataChanged(
            changed, changed,
            {TextRole, Qt::DisplayRole, HasTextRole, AnswerRole, ReasoningRole, HasReasoningRole, ReasoningOpenRole});
        if (messageIndex == rowCount() - 1)
            emit lastTextChanged();
    });
    connect(conversations, &ConversationListModel::messageThinkingSecondsChanged, this,
            [this](int index, int messageIndex) {
                if (index != m_conversations->selectedIndex())
                    return;
                const QModelIndex changed = this->index(messageIndex);
                emit dataChanged(changed, changed, {ThinkingSecondsRole});
            });
}

namespace {

// Only replies have reasoning; the user's text is theirs as typed.
ReplyText partsOf(const ChatMessage &message)
{
    if (message.role != QLatin1String("assistant"))
        return ReplyText{{}, message.text, false, false};
    return ReplyText::split(message.text);
}

} // namespace

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
    case AnswerRole:
        return partsOf(message).answer;
    case ReasoningRole:
        return partsOf(message).reasoning;
    case HasReasoningRole:
        return partsOf(message).hasReasoning;
    case ReasoningOpenRole:
        return partsOf(message).reasoningOpen;
    case ThinkingSecondsRole:
        return message.thinkingSeconds.value_or(-1);
    case ReasoningShownRole:
        return m_reasoningShown.contains(message.id);
    default:
        return {};
    }
}

QHash<int, QByteArray> MessageListModel::roleNames() const
{
    return {{IdRole, "messageId"},
            {RoleRole, "role"},
            {TextRole, "text"},
            {ImageRole, "image"},
            {HasImageRole, "hasImage"},
            {IsUserRole, "isUser"},
            {HasTextRole, "hasText"},
            {AnswerRole, "answer"},
            {ReasoningRole, "reasoning"},
            {HasReasoningRole, "hasReasoning"},
            {ReasoningOpenRole, "reasoningOpen"},
            {ThinkingSecondsRole, "thinkingSeconds"},
            {ReasoningShownRole, "reasoningShown"}};
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

QString MessageListModel::answerAt(int row) const
{
    const QList<ChatMessage> *messages = shownMessages();
    return !messages || row < 0 || row >= messages->size() ? QString() : partsOf(messages->at(row)).answer;
}

void MessageListModel::setReasoningShown(int row, bool shown)
{
    const QList<ChatMessage> *messages = shownMessages();
    if (!messages || row < 0 || row >= messages->size())
        return;
    const QUuid &id = messages->at(row).id;
    if (m_reasoningShown.contains(id) == shown)
        return;
    if (shown)
        m_reasoningShown.insert(id);
    else
        m_reasoningShown.remove(id);
    const QModelIndex changed = index(row);
    emit dataChanged(changed, changed, {ReasoningShownRole});
}
