#pragma once

#include "model/Conversation.h"

#include <QAbstractListModel>
#include <QList>
#include <QUuid>
#include <optional>

// All conversations, in the order the sidebar shows them, and which one is selected.
// The list is changed here and nowhere else, so every change is announced as it
// happens: rows to the sidebar, and the selected conversation's messages to the
// message list that follows it.
class ConversationListModel : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)
public:
    enum Role { IdRole = Qt::UserRole + 1, TitleRole, SelectedRole, PinnedRole };

    explicit ConversationListModel(QList<Conversation> conversations, QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;
    int count() const { return static_cast<int>(m_conversations.size()); }

    const QList<Conversation> &conversations() const { return m_conversations; }
    const std::optional<QUuid> &selectedID() const { return m_selectedID; }
    // The selected conversation's row, or -1 when the selection names none.
    int selectedIndex() const { return m_selectedIndex; }

    // The row of that conversation, or -1.
    int indexOf(const QUuid &id) const;
    // How many conversations are pinned: they are the first ones of the list.
    int pinnedCount() const;

    void insert(int index, const Conversation &conversation);
    void remove(int index);
    // Moves a conversation so that it ends up at row to.
    void move(int from, int to);
    void select(const std::optional<QUuid> &id);
    void setTitle(int index, const QString &title);
    void setPinned(int index, bool pinned);
    void setSystem(int index, const std::optional<QString> &system);
    void appendMessage(int index, const ChatMessage &message);
    void setMessageText(int index, int messageIndex, const QString &text);
    void appendMessageText(int index, int messageIndex, const QString &piece);
    void setMessageThinkingSeconds(int index, int messageIndex, qint64 seconds);
    // Removes a conversation's messages from messageIndex to its end.
    void removeMessagesFrom(int index, int messageIndex);
    // Gives a conversation other messages altogether.
    void replaceMessages(int index, const QList<ChatMessage> &messages);

signals:
    void countChanged();
    // Around a change of the selection.
    void selectionAboutToChange();
    void selectionChanged();
    // Around a message added to a conversation, and after a message's text changed.
    void messageAboutToBeAppended(int index, int messageIndex);
    void messageAppended(int index);
    void messageTextChanged(int index, int messageIndex);
    void messageThinkingSecondsChanged(int index, int messageIndex);
    // Around the removal of a conversation's messages first to last.
    void messagesAboutToBeRemoved(int index, int first, int last);
    void messagesRemoved(int index);
    // Around a conversation's messages replaced as a whole.
    void messagesAboutToBeReplaced(int index);
    void messagesReplaced(int index);

private:
    void conversationChanged(int index, const QList<int> &roles = {});
    void findSelectedIndex();

    QList<Conversation> m_conversations;
    std::optional<QUuid> m_selectedID;
    int m_selectedIndex = -1;
};
