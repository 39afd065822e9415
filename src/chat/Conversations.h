#pragma once

#include "model/Conversation.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QUuid>
#include <optional>

class ConversationListModel;
class ConversationUndo;
class MessageListModel;

// The chat history: every conversation, the selected one, their list models, the one
// change that can be taken back, and the history file they are read from and saved to.
// Pinned conversations come first, in their own order.
class Conversations : public QObject {
    Q_OBJECT
public:
    // Reads the history file; a missing, unreadable or empty history gives one new
    // conversation. The first conversation is selected.
    explicit Conversations(const QString &historyFile, QObject *parent = nullptr);

    const QString &historyFile() const { return m_historyFile; }
    ConversationListModel *list() const { return m_list; }
    MessageListModel *messageList() const { return m_messageList; }
    ConversationUndo &undoRecord() const { return *m_undo; }

    const QList<Conversation> &all() const;
    const std::optional<QUuid> &selectedID() const;
    int selectedIndex() const;
    // The selected conversation, or none when the selection names none.
    const Conversation *selected() const;
    // The selected conversation's messages; none when the selection names none.
    QList<ChatMessage> messages() const;

    void select(const std::optional<QUuid> &id);
    // A new conversation at the top (below the pinned ones), selected.
    void startNew();
    // Adds a question and its empty answer to the selected conversation, titling it
    // by its first message; returns the messages to send, the empty answer left out.
    // Nothing, and no change, when no conversation is selected.
    std::optional<QList<ChatMessage>> ask(const ChatMessage &question, const ChatMessage &answer, const QString &title);
    // Puts a new empty answer in place of the selected conversation's last message, an
    // answer, and returns the messages before it. Nothing, and no change, when the
    // conversation does not end with an answer to something.
    std::optional<QList<ChatMessage>> retry(const ChatMessage &answer);
    // Replaces the selected conversation's message questionID and everything after it
    // with the question and its empty answer, and returns the messages to send. An
    // edited first question retitles a conversation that still has the title the old
    // one gave it. The change can be taken back. Nothing when there is no such message.
    std::optional<QList<ChatMessage>> resend(const QUuid &questionID, const ChatMessage &question,
                                             const ChatMessage &answer);

    // Replaces the text of that message of the selected conversation; a message of
    // another conversation is left alone.
    void updateAssistant(const QUuid &id, const QString &text);
    // The same for a reply that grew by piece to reply: the piece is appended when the
    // message holds the reply before it, and the whole reply replaces it otherwise.
    void extendAssistant(const QUuid &id, const QString &piece, const QString &reply);

    // Records how long the reply with that id reasoned, in whichever conversation
    // holds it: unlike its text, the figure has no later delta to catch up with.
    void setThinkingSeconds(const QUuid &id, qint64 seconds);
    // The operations below save the history when they change something.
    // A title of one line; one that is empty once trimmed keeps the old title.
    bool rename(const QUuid &id, const QString &title);
    // Removes a conversation; the change can be taken back. A selected conversation
    // hands the selection to the row below it, or above when it was the last; the last
    // conversation of all leaves a new one in its place.
    bool remove(const QUuid &id);
    // A pinned conversation goes to the end of the pinned ones; an unpinned one to the
    // top of the others.
    bool setPinned(const QUuid &id, bool pinned);
    // A conversation's own system prompt; none gives it the default again.
    bool setSystem(const QUuid &id, const std::optional<QString> &system);
    // Takes the last change back. mayReselect: whether the selection may change.
    bool undo(bool mayReselect);

    void save() const;

signals:
    void selectedIDChanged();
    // A conversation's own system prompt changed.
    void systemChanged();

private:
    // The row of that message in the selected conversation, or -1.
    int selectedMessageRow(const QUuid &id) const;
    void restoreDeleted(const Conversation &conversation, int index, bool reselect,
                        const std::optional<QUuid> &placeholder);

    QString m_historyFile;
    ConversationListModel *m_list;
    MessageListModel *m_messageList;
    ConversationUndo *m_undo;
};
