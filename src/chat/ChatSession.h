#pragma once

#include "ChatExchange.h"
#include "model/ChatMessage.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <QUuid>
#include <optional>

class Conversations;
class EngineConnection;
class FileChooser;
class ModelLibrary;

// The conversation with the model: the composer's draft and image, the generation
// settings, and the one reply that may be streaming into the selected conversation.
class ChatSession : public QObject {
    Q_OBJECT
public:
    ChatSession(EngineConnection &engine, Conversations &conversations, const ModelLibrary &library,
                QObject *parent = nullptr);

    const QString &prompt() const { return m_prompt; }
    void setPrompt(const QString &prompt);
    const std::optional<QString> &attachment() const { return m_attachment; }
    void setAttachment(const std::optional<QString> &attachment);
    bool generating() const { return m_generating; }
    void setGenerating(bool generating);
    double temperature() const { return m_temperature; }
    void setTemperature(double temperature);
    int tokenLimit() const { return m_tokenLimit; }
    void setTokenLimit(int tokenLimit);
    CancellableTask *generationTask() const { return m_generationTask; }

    // Whether the send/stop control acts: it stops while generating, and otherwise
    // sends only what the engine can take.
    bool canSend() const;

    // The question send() would add now: the trimmed draft, with the image; nothing
    // when there is neither text nor image.
    std::optional<ChatMessage> draftQuestion() const;
    // The chat request's messages for these messages of a conversation.
    static QJsonArray requestMessages(const QList<ChatMessage> &messages);

    void send();
    void stop();
    // What the send/stop control does.
    void sendOrStop();
    void newChat();
    // A click on a conversation: the selection cannot change during a reply.
    void selectConversation(const QUuid &id);
    void attachImage(FileChooser *chooser);

signals:
    void promptChanged();
    void attachmentChanged();
    void generatingChanged();
    void temperatureChanged();
    void tokenLimitChanged();
    void canSendChanged();
    // A reply's last chunk told how much of the context that conversation takes;
    // firstSeen is the earliest message the model still saw when earlier ones were left
    // out, and null otherwise.
    void replyContextReported(const QUuid &conversationID, const ContextUse &use, const QUuid &firstSeen);
    void errorRaised(const QString &message);
    void errorCleared();

private:
    void followCanSend();
    void startExchange(const QList<ChatMessage> &asked, const QUuid &conversationID, const QUuid &answerID);

    EngineConnection &m_engine;
    Conversations &m_conversations;
    const ModelLibrary &m_library;
    QString m_prompt;
    std::optional<QString> m_attachment;
    bool m_generating = false;
    double m_temperature = 0.7;
    int m_tokenLimit = 512;
    bool m_canSend = false;
    QPointer<ChatExchange> m_generationTask;
};
