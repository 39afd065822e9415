#pragma once

#include "model/Conversation.h"

#include <QObject>
#include <QString>
#include <QTimer>
#include <QUuid>
#include <optional>

// The one change to the conversations that can still be taken back: a deleted
// conversation, or the messages an edit replaced. It keeps the conversation as it was
// before the change and is offered for a while (8 seconds), then forgotten; a newer
// change takes its place.
class ConversationUndo : public QObject {
    Q_OBJECT
public:
    enum class Kind { Deletion, Edit };

    struct Record {
        Kind kind = Kind::Deletion;
        // The conversation before the change, and its row then.
        Conversation before;
        int index = 0;
        bool wasSelected = false;
        // Deletion: the new conversation made because the list would have been empty.
        std::optional<QUuid> placeholder;
        // Edit: the title the edit left, which taking it back restores only if it is
        // still there.
        QString titleAfter;
    };

    explicit ConversationUndo(QObject *parent = nullptr);

    static constexpr int defaultTimeoutMs = 8000;
    void setTimeout(int milliseconds) { m_timer.setInterval(milliseconds); }

    bool available() const { return m_record.has_value(); }
    // What the undo bar says: the change that Undo takes back.
    QString text() const;
    // The conversation the change was made to.
    std::optional<QUuid> conversation() const;
    Kind kind() const { return m_record ? m_record->kind : Kind::Deletion; }

    void offer(Record record);
    // Hands the record over and forgets it.
    std::optional<Record> take();
    void drop();
    // Forgets an edit of that conversation, which a newer change to it has outdated.
    void dropEditOf(const QUuid &conversation);

signals:
    void changed();

private:
    std::optional<Record> m_record;
    QTimer m_timer;
};
