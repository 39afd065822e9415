#pragma once

#include "SseLineReader.h"
#include "engine/CancellableTask.h"
#include "model/ContextUse.h"

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
    // The reply grew by piece; reply is all of it so far.
    void replyGrew(const QString &piece, const QString &reply);
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
};
