#include "Conversations.h"

#include "ConversationListModel.h"
#include "MessageListModel.h"
#include "model/HistoryFile.h"

namespace {

QList<Conversation> readHistory(const QString &file)
{
    auto history = HistoryFile::load(file);
    if (history && !history->isEmpty())
        return std::move(*history);
    if (!history)
        HistoryFile::keepUnreadableCopy(file);
    return {Conversation()};
}

} // namespace

Conversations::Conversations(const QString &historyFile, QObject *parent)
    : QObject(parent),
      m_historyFile(historyFile),
      m_list(new ConversationListModel(readHistory(historyFile), this)),
      m_messageList(new MessageListModel(m_list, this))
{
    m_list->select(m_list->conversations().first().id);
}

const QList<Conversation> &Conversations::all() const
{
    return m_list->conversations();
}

const std::optional<QUuid> &Conversations::selectedID() const
{
    return m_list->selectedID();
}

int Conversations::selectedIndex() const
{
    return m_list->selectedIndex();
}

QList<ChatMessage> Conversations::messages() const
{
    const int index = selectedIndex();
    return index < 0 ? QList<ChatMessage>() : all().at(index).messages;
}

void Conversations::select(const std::optional<QUuid> &id)
{
    if (selectedID() == id)
        return;
    m_list->select(id);
    emit selectedIDChanged();
}

void Conversations::startNew()
{
    const Conversation conversation;
    m_list->insert(0, conversation);
    select(conversation.id);
}

std::optional<QList<ChatMessage>> Conversations::ask(const ChatMessage &question, const ChatMessage &answer,
                                                     const QString &title)
{
    const int index = selectedIndex();
    if (index < 0)
        return std::nullopt;
    if (all().at(index).messages.isEmpty())
        m_list->setTitle(index, title);
    m_list->appendMessage(index, question);
    const QList<ChatMessage> asked = all().at(index).messages;
    m_list->appendMessage(index, answer);
    return asked;
}

int Conversations::selectedMessageRow(const QUuid &id) const
{
    const int index = selectedIndex();
    if (index < 0)
        return -1;
    const QList<ChatMessage> &messages = all().at(index).messages;
    // Ids are unique; the reply being written is nearly always the last message.
    for (auto row = messages.size() - 1; row >= 0; --row) {
        if (messages.at(row).id == id)
            return static_cast<int>(row);
    }
    return -1;
}

void Conversations::updateAssistant(const QUuid &id, const QString &text)
{
    const int row = selectedMessageRow(id);
    if (row >= 0)
        m_list->setMessageText(selectedIndex(), row, text);
}

void Conversations::extendAssistant(const QUuid &id, const QString &piece, const QString &reply)
{
    const int row = selectedMessageRow(id);
    if (row < 0)
        return;
    const QString &text = all().at(selectedIndex()).messages.at(row).text;
    // A message left behind while another conversation was shown catches up whole.
    if (text.size() + piece.size() == reply.size() && QStringView(reply).first(text.size()) == text)
        m_list->appendMessageText(selectedIndex(), row, piece);
    else
        m_list->setMessageText(selectedIndex(), row, reply);
}

void Conversations::setThinkingSeconds(const QUuid &id, qint64 seconds)
{
    for (int index = 0; index < all().size(); ++index) {
        const QList<ChatMessage> &messages = all().at(index).messages;
        for (auto row = messages.size() - 1; row >= 0; --row) {
            if (messages.at(row).id == id) {
                m_list->setMessageThinkingSeconds(index, static_cast<int>(row), seconds);
                return;
            }
        }
    }
}

void Conversations::save() const
{
    HistoryFile::save(m_historyFile, all());
}
