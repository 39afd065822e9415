#pragma once

#include "SseLineReader.h"
#include "engine/CancellableTask.h"

#include <QJsonArray>
#include <QPointer>
#include <QString>
#include <QUuid>

class EngineStore;
class QNetworkReply;

// One chat request to the engine, with its reply streamed into the assistant message.
class ChatExchange : public CancellableTask {
    Q_OBJECT
public:
    ChatExchange(EngineStore *store, QJsonArray messages, QUuid assistantID);

    void begin();

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

    QPointer<EngineStore> m_store;
    QJsonArray m_messages;
    QUuid m_assistantID;
    QString m_reply;
    QPointer<QNetworkReply> m_networkReply;
    SseLineReader m_lines;
    bool m_ended = false;
};
