#pragma once

#include "SseLineReader.h"
#include "engine/CancellableTask.h"
#include "model/ContextUse.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QPointer>
#include <QString>

class EngineClient;
class QNetworkReply;

// One chat request to the engine, with its reply read as it streams. What arrives and
// how the exchange ends is told through signals; the exchange changes nothing itself.
class ChatExchange : public CancellableTask {
    Q_OBJECT
public:
    ChatExchange(EngineClient *client, QJsonArray messages, QObject *parent = nullptr);

    // Sends the request with these settings, taken as the exchange starts.
    void begin(double temperature, int tokenLimit);

signals:
    // The reply grew by piece; reply is all of it so far. Reasoning streamed apart
    // (delta.reasoning_content) joins the reply as its leading <think> section.
    void replyGrew(const QString &piece, const QString &reply);
    // The reply's reasoning ended (or the exchange did, while reasoning): how long it
    // took from its first piece, in whole seconds.
    void reasoningTimed(qint64 seconds);
    // Nothing arrived before the end; the message says so instead.
    void replyReplaced(const QString &text);
    // The context the reply's conversation takes, as its last chunk reports it.
    void contextReported(const ContextUse &use);
    // A failure the user should see.
    void failed(const QString &message);
    // The exchange is over, whichever way it went; finished() follows.
    void ended();

protected:
    void onCancel() override;

private:
    enum class Outcome { Continue, Done };

    void readAvailable();
    void replyFinished();
    bool statusIsAcceptable();
    Outcome handleLine(const QString &line);
    void addReasoning(const QString &piece);
    void addContent(const QString &piece);
    void grow(const QString &piece);
    void endReasoning();
    void succeed();
    void failCancelled();
    void fail(const QString &message);
    void finalSteps();
    void detachReply();

    QPointer<EngineClient> m_client;
    QJsonArray m_messages;
    QString m_reply;
    QPointer<QNetworkReply> m_networkReply;
    SseLineReader m_lines;
    bool m_ended = false;
    // Where the reply's reasoning stands: none seen, a section the engine sends apart
    // (its closing tag is ours to write), a section the model writes itself, or done.
    enum class Reasoning { None, Apart, Inline, Done };
    Reasoning m_reasoning = Reasoning::None;
    QElapsedTimer m_reasoningClock;
};
