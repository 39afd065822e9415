#pragma once

#include "ChatExchange.h"
#include "model/ChatMessage.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUuid>
#include <optional>

class Conversations;
class EngineConnection;
class FileChooser;
class ModelLibrary;
struct ChatMessage;
struct Conversation;

// The conversation with the model: the composer's draft and image, the generation
// settings and the default system prompt, the one reply that may be streaming into the
// selected conversation, and the question being edited in the composer.
class ChatSession : public QObject {
    Q_OBJECT
public:
    ChatSession(EngineConnection &engine, Conversations &conversations, const ModelLibrary &library,
                QObject *parent = nullptr);

    // The settings key of the default system prompt.
    static constexpr const char *systemPromptKey = "systemPrompt";

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
    // Used by every conversation that has no system prompt of its own; kept in the
    // settings.
    const QString &defaultSystemPrompt() const { return m_defaultSystemPrompt; }
    void setDefaultSystemPrompt(const QString &text);
    // What a conversation tells the model first: its own prompt, or the default.
    QString systemPromptFor(const Conversation &conversation) const;
    CancellableTask *generationTask() const { return m_generationTask; }
    // The conversation the reply in progress is written into.
    const std::optional<QUuid> &replyingConversation() const { return m_replyingConversation; }
    // The question being edited in the composer.
    const std::optional<QUuid> &editedQuestion() const { return m_editedQuestion; }
    bool editing() const { return m_editedQuestion.has_value(); }

    // Whether the send/stop control acts: it stops while generating, and otherwise
    // sends only what the engine can take.
    bool canSend() const;
    // Whether a reply can be asked for again: the same rules as sending, less the draft.
    bool canRegenerate() const;

    // The question send() would add now: the trimmed draft, with the image; nothing
    // when there is neither text nor image.
    std::optional<ChatMessage> draftQuestion() const;
    // The chat request's messages for these messages of a conversation.
    static QJsonArray requestMessages(const QList<ChatMessage> &messages);
    // The same for the selected conversation, after its system prompt when it has one:
    // what a reply, or a count of the context, sends.
    QJsonArray sentMessages(const QList<ChatMessage> &messages) const;

    void send();
    void stop();
    // What the send/stop control does.
    void sendOrStop();
    // Replaces the selected conversation's last reply with a new one.
    void regenerate();
    void newChat();
    // A click on a conversation: the selection cannot change during a reply.
    void selectConversation(const QUuid &id);
    void attachImage(FileChooser *chooser);

    // Puts a question of the selected conversation back into the composer; sending
    // then replaces it and what followed. The draft it displaces comes back afterwards.
    void beginEdit(const QUuid &questionID);
    // The same for the last question, when the composer is empty.
    void editLastQuestion();
    // Leaves editing with the conversation unchanged.
    void cancelEdit();
    // Removes a conversation, unless its reply is being written.
    bool deleteConversation(const QUuid &id);
    // Takes the last deletion or edit back; a reply written into an edit is stopped first.
    void undo();

signals:
    void promptChanged();
    void attachmentChanged();
    void generatingChanged();
    void temperatureChanged();
    void tokenLimitChanged();
    void defaultSystemPromptChanged();
    void canSendChanged();
    void canRegenerateChanged();
    void editingChanged();
    // A reply's last chunk told how much of the context that conversation takes;
    // firstSeen is the earliest message the model still saw when earlier ones were left
    // out, and null otherwise.
    void replyContextReported(const QUuid &conversationID, const ContextUse &use, const QUuid &firstSeen);
    void errorRaised(const QString &message);
    void errorCleared();

private:
    struct Draft {
        QString prompt;
        std::optional<QString> attachment;
    };

    void followCanSend();
    void followCanRegenerate();
    bool modelCanAnswer() const;
    void endEdit(bool restoreDraft);
    // Sets generating and starts the exchange for the selected conversation's answer.
    void startReply(const QList<ChatMessage> &asked, const QUuid &answerID);
    void startExchange(const QList<ChatMessage> &asked, const QUuid &conversationID, const QUuid &answerID);

    EngineConnection &m_engine;
    Conversations &m_conversations;
    const ModelLibrary &m_library;
    QString m_prompt;
    std::optional<QString> m_attachment;
    bool m_generating = false;
    double m_temperature = 0.7;
    int m_tokenLimit = 512;
    QString m_defaultSystemPrompt;
    bool m_canSend = false;
    bool m_canRegenerate = false;
    QPointer<ChatExchange> m_generationTask;
    std::optional<QUuid> m_replyingConversation;
    std::optional<QUuid> m_editedQuestion;
    // The composer's draft while a question is being edited.
    Draft m_setAside;
};
