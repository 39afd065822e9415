#pragma once

#include "model/Conversation.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QUuid>
#include <optional>

class ConversationListModel;
class MessageListModel;

// The chat history: every conversation, the selected one, their list models, and the
// history file they are read from and saved to.
class Conversations : public QObject {
    Q_OBJECT
public:
    // Reads the history file; a missing, unreadable or empty history gives one new
    // conversation. The first conversation is selected.
    explicit Conversations(const QString &historyFile, QObject *parent = nullptr);

    const QString &historyFile() const { return m_historyFile; }
    ConversationListModel *list() const { return m_list; }
    MessageListModel *messageList() const { return m_messageList; }

    const QList<Conversation> &all() const;
    const std::optional<QUuid> &selectedID() const;
    int selectedIndex() const;
    // The selected conversation's messages; none when the selection names none.
    QList<ChatMessage> messages() const;

    void select(const std::optional<QUuid> &id);
    // A new conversation at the top, selected.
    void startNew();
    // Adds a question and its empty answer to the selected conversation, titling it
    // by its first message; returns the messages to send, the empty answer left out.
    // Nothing, and no change, when no conversation is selected.
    std::optional<QList<ChatMessage>> ask(const ChatMessage &question, const ChatMessage &answer, const QString &title);

    // Replaces the text of that message of the selected conversation; a message of
    // another conversation is left alone.
    void updateAssistant(const QUuid &id, const QString &text);
    // The same for a reply that grew by piece to reply: the piece is appended when the
    // message holds the reply before it, and the whole reply replaces it otherwise.
    void extendAssistant(const QUuid &id, const QString &piece, const QString &reply);

    // Records how long the reply with that id reasoned, in whichever conversation
    // holds it: unlike its text, the figure has no later delta to catch up with.
    void setThinkingSeconds(const QUuid &id, qint64 seconds);

    void save() const;

signals:
    void selectedIDChanged();

private:
    // The row of that message in the selected conversation, or -1.
    int selectedMessageRow(const QUuid &id) const;

    QString m_historyFile;
    ConversationListModel *m_list;
    MessageListModel *m_messageList;
};
