#include "Conversations.h"

#include "ConversationListModel.h"
#include "ConversationUndo.h"
#include "MessageListModel.h"
#include "model/HistoryFile.h"

#include <algorithm>

namespace {

QList<Conversation> readHistory(const QString &file)
{
    auto history = HistoryFile::load(file);
    if (history && !history->isEmpty()) {
        // Pinned conversations lead the list, whatever order a file gives them.
        std::stable_partition(history->begin(), history->end(),
                              [](const Conversation &conversation) { return conversation.pinned; });
        return std::move(*history);
    }
    if (!history)
        HistoryFile::keepUnreadableCopy(file);
    return {Conversation()};
}

// A title on one line, without the spaces around it.
QString oneLine(QString title)
{
    for (const QChar lineBreak : {QChar(u'\n'), QChar(u'\r'), QChar(0x2028), QChar(0x2029)})
        title.replace(lineBreak, QLatin1Char(' '));
    return title.trimmed();
}

bool untouched(const Conversation &conversation)
{
    const Conversation fresh;
    return conversation.messages.isEmpty() && conversation.title == fresh.title && !conversation.pinned
        && !conversation.system;
}

} // namespace

Conversations::Conversations(const QString &historyFile, QObject *parent)
    : QObject(parent),
      m_historyFile(historyFile),
      m_list(new ConversationListModel(readHistory(historyFile), this)),
      m_messageList(new MessageListModel(m_list, this)),
      m_undo(new ConversationUndo(this))
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

const Conversation *Conversations::selected() const
{
    const int index = selectedIndex();
    return index < 0 ? nullptr : &all().at(index);
}

QList<ChatMessage> Conversations::messages() const
{
    const Conversation *conversation = selected();
    return conversation ? conversation->messages : QList<ChatMessage>();
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
    m_list->insert(m_list->pinnedCount(), conversation);
    select(conversation.id);
}

std::optional<QList<ChatMessage>> Conversations::ask(const ChatMessage &question, const ChatMessage &answer,
                                                     const QString &title)
{
    const int index = selectedIndex();
    if (index < 0)
        return std::nullopt;
    m_undo->dropEditOf(all().at(index).id);
    if (all().at(index).messages.isEmpty())
        m_list->setTitle(index, title);
    m_list->appendMessage(index, question);
    const QList<ChatMessage> asked = all().at(index).messages;
    m_list->appendMessage(index, answer);
    return asked;
}

std::optional<QList<ChatMessage>> Conversations::retry(const ChatMessage &answer)
{
    const int index = selectedIndex();
    if (index < 0)
        return std::nullopt;
    const QList<ChatMessage> &messages = all().at(index).messages;
    if (messages.size() < 2 || messages.last().role != QLatin1String("assistant"))
        return std::nullopt;
    m_undo->dropEditOf(all().at(index).id);
    m_list->removeMessagesFrom(index, static_cast<int>(messages.size()) - 1);
    const QList<ChatMessage> asked = all().at(index).messages;
    m_list->appendMessage(index, answer);
    return asked;
}

std::optional<QList<ChatMessage>> Conversations::resend(const QUuid &questionID, const ChatMessage &question,
                                                        const ChatMessage &answer)
{
    const int index = selectedIndex();
    const int row = selectedMessageRow(questionID);
    if (index < 0 || row < 0)
        return std::nullopt;
    ConversationUndo::Record record;
    record.kind = ConversationUndo::Kind::Edit;
    record.before = all().at(index);
    record.index = index;
    record.wasSelected = true;

    // A title the first question gave follows that question; one the user chose stays.
    if (row == 0 && record.before.title == Conversation::titleFor(record.before.messages.first().text))
        m_list->setTitle(index, Conversation::titleFor(question.text));
    m_list->removeMessagesFrom(index, row);
    m_list->appendMessage(index, question);
    const QList<ChatMessage> asked = all().at(index).messages;
    m_list->appendMessage(index, answer);
    record.titleAfter = all().at(index).title;
    m_undo->offer(std::move(record));
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

bool Conversations::rename(const QUuid &id, const QString &title)
{
    const int index = m_list->indexOf(id);
    const QString line = oneLine(title);
    if (index < 0 || line.isEmpty() || line == all().at(index).title)
        return false;
    m_list->setTitle(index, line);
    save();
    return true;
}

bool Conversations::remove(const QUuid &id)
{
    if (m_list->indexOf(id) < 0)
        return false;
    ConversationUndo::Record record;
    record.kind = ConversationUndo::Kind::Deletion;
    record.index = m_list->indexOf(id);
    record.before = all().at(record.index);
    record.wasSelected = selectedID() == id;

    // The list is never empty: the last conversation leaves a new one behind.
    if (m_list->count() == 1) {
        const Conversation placeholder;
        m_list->insert(m_list->pinnedCount(), placeholder);
        record.placeholder = placeholder.id;
    }
    int index = m_list->indexOf(id);
    if (record.wasSelected) {
        const int neighbour = index + 1 < m_list->count() ? index + 1 : index - 1;
        select(all().at(neighbour).id);
        index = m_list->indexOf(id);
    }
    m_list->remove(index);
    m_undo->offer(std::move(record));
    save();
    return true;
}

bool Conversations::setPinned(const QUuid &id, bool pinned)
{
    const int index = m_list->indexOf(id);
    if (index < 0 || all().at(index).pinned == pinned)
        return false;
    // Pinned: the end of the pinned ones. Unpinned: the top of the others, which is
    // the last pinned row before the pin is taken away.
    const int pinnedCount = m_list->pinnedCount();
    m_list->move(index, pinned ? pinnedCount : pinnedCount - 1);
    m_list->setPinned(m_list->indexOf(id), pinned);
    save();
    return true;
}

bool Conversations::setSystem(const QUuid &id, const std::optional<QString> &system)
{
    const int index = m_list->indexOf(id);
    if (index < 0 || all().at(index).system == system)
        return false;
    m_list->setSystem(index, system);
    emit systemChanged();
    save();
    return true;
}

bool Conversations::undo(bool mayReselect)
{
    const auto record = m_undo->take();
    if (!record)
        return false;
    if (record->kind == ConversationUndo::Kind::Deletion) {
        restoreDeleted(record->before, record->index, mayReselect && record->wasSelected, record->placeholder);
    } else {
        const int index = m_list->indexOf(record->before.id);
        if (index < 0)
            return false;
        m_list->replaceMessages(index, record->before.messages);
        if (all().at(index).title == record->titleAfter)
            m_list->setTitle(index, record->before.title);
    }
    save();
    return true;
}

void Conversations::restoreDeleted(const Conversation &conversation, int index, bool reselect,
                                   const std::optional<QUuid> &placeholder)
{
    if (m_list->indexOf(conversation.id) >= 0)
        return;
    // Back at its row, within its own part of the list: pinned or not.
    const int pinnedCount = m_list->pinnedCount();
    const int row = conversation.pinned ? std::clamp(index, 0, pinnedCount)
                                        : std::clamp(index, pinnedCount, m_list->count());
    m_list->insert(row, conversation);

    // The new conversation that stood in for an empty list goes again if it is unused.
    const int placeholderRow = placeholder ? m_list->indexOf(*placeholder) : -1;
    const bool dropPlaceholder = placeholderRow >= 0 && untouched(all().at(placeholderRow));
    if (reselect || (dropPlaceholder && selectedID() == placeholder))
        select(conversation.id);
    if (dropPlaceholder)
        m_list->remove(m_list->indexOf(*placeholder));
}

void Conversations::save() const
{
    HistoryFile::save(m_historyFile, all());
}
