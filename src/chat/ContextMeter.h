#pragma once

#include "model/ContextUse.h"

#include <QHash>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <QUuid>
#include <optional>

class ChatSession;
class Conversations;
class EngineConnection;
class ModelLibrary;
class QNetworkReply;

// What the model sees of the selected conversation: how much of its context the
// conversation and the draft take (counted by the engine after each change, and told
// by each reply), whether earlier messages are being left out, and from which message
// on the model saw the conversation in its last reply.
class ContextMeter : public QObject {
    Q_OBJECT
public:
    enum class Level { Comfortable, NearlyFull, Overflowing };

    ContextMeter(EngineConnection &engine, Conversations &conversations, const ChatSession &chat,
                 const ModelLibrary &library, QObject *parent = nullptr);

    // How long the draft rests before it is counted.
    static constexpr int countDelayMilliseconds = 250;

    // The selected conversation's use, draft included; none without a model or before
    // the engine has told.
    const std::optional<ContextUse> &use() const { return m_use; }
    bool shown() const;
    // "2,310 / 8,192 tokens"; empty when not shown.
    QString text() const;
    Level level() const;
    // The earliest message the model saw in the selected conversation's last reply,
    // when earlier ones were left out.
    std::optional<QUuid> firstSeenMessage() const;
    // Sending the draft would leave out more earlier messages than the last reply did.
    bool draftBeyondContext() const;

signals:
    void changed();

private:
    // Counts again once the draft has rested; counting waits while a reply or a load
    // is under way.
    void scheduleCount();
    void sendCount();
    void cancelCount();
    void setUse(const std::optional<ContextUse> &use, bool includesDraft);
    void followModel();
    void replyEnded();
    bool canCount() const;

    EngineConnection &m_engine;
    Conversations &m_conversations;
    const ChatSession &m_chat;
    const ModelLibrary &m_library;
    QTimer m_countDelay;
    QPointer<QNetworkReply> m_countInFlight;
    // Each count has its number; an answer to any but the latest is dropped.
    quint64 m_countNumber = 0;
    std::optional<ContextUse> m_use;
    bool m_useIncludesDraft = false;
    bool m_replyReported = false;
    // The model and context the figures are about.
    QString m_modelFile;
    qint64 m_modelContext = 0;
    // Per conversation: the first message its last reply saw, and how many it left out.
    struct Cut {
        QUuid firstSeen;
        qint64 droppedMessages = 0;
    };
    QHash<QUuid, Cut> m_cuts;
};
