#pragma once

#include <QAbstractListModel>
#include <QSet>
#include <QUuid>

class ConversationListModel;
struct ChatMessage;

// The selected conversation's messages for the transcript, read from the conversation
// list as it announces each change. A streamed token changes one row's text, nothing
// else.
class MessageListModel : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)
    Q_PROPERTY(QString lastText READ lastText NOTIFY lastTextChanged)
public:
    enum Role {
        IdRole = Qt::UserRole + 1,
        RoleRole,
        TextRole,
        ImageRole,
        HasImageRole,
        IsUserRole,
        HasTextRole,
        // A reply's parts (ReplyText): its answer, and its reasoning section.
        AnswerRole,
        ReasoningRole,
        HasReasoningRole,
        ReasoningOpenRole,
        // Whole seconds the reasoning took, -1 when not known.
        ThinkingSecondsRole,
        // Whether the transcript shows the reasoning unfolded (view state, not saved).
        ReasoningShownRole,
    };

    explicit MessageListModel(const ConversationListModel *conversations, QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;
    int count() const { return rowCount(); }
    // The last message's text, empty when there is none.
    QString lastText() const;
    // A message's text as stored, for copying it; empty for a row that is not there.
    Q_INVOKABLE QString textAt(int row) const;
    // A message's words without any reasoning; empty for a row that is not there.
    Q_INVOKABLE QString answerAt(int row) const;
    // Unfolds or folds a reply's reasoning in the transcript; the choice lasts while
    // the app runs, also when the row's view is made again.
    Q_INVOKABLE void setReasoningShown(int row, bool shown);

signals:
    void countChanged();
    void lastTextChanged();

private:
    const QList<ChatMessage> *shownMessages() const;

    const ConversationListModel *m_conversations;
    // Set between the announcement of a change to the shown conversation's messages
    // and the change itself.
    bool m_changing = false;
    QSet<QUuid> m_reasoningShown;
};
