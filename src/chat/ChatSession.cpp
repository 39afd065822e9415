#include "ChatSession.h"

#include "ConversationUndo.h"
#include "Conversations.h"
#include "ImageAttachment.h"
#include "engine/EngineConnection.h"
#include "engine/FileChooser.h"
#include "library/ModelLibrary.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QSettings>
#include <QTimer>
#include <algorithm>
#include <utility>

ChatSession::ChatSession(EngineConnection &engine, Conversations &conversations, const ModelLibrary &library,
                         QObject *parent)
    : QObject(parent),
      m_engine(engine),
      m_conversations(conversations),
      m_library(library),
      m_defaultSystemPrompt(QSettings().value(QLatin1String(systemPromptKey)).toString())
{
    followCanSend();
    followCanRegenerate();
    // An edit belongs to the conversation it was started in.
    connect(&m_conversations, &Conversations::selectedIDChanged, this, [this] { endEdit(true); });
}

void ChatSession::setPrompt(const QString &prompt)
{
    if (m_prompt == prompt)
        return;
    m_prompt = prompt;
    emit promptChanged();
}

void ChatSession::setAttachment(const std::optional<QString> &attachment)
{
    if (m_attachment == attachment)
        return;
    m_attachment = attachment;
    emit attachmentChanged();
}

void ChatSession::setGenerating(bool generating)
{
    if (m_generating == generating)
        return;
    m_generating = generating;
    emit generatingChanged();
}

void ChatSession::setTemperature(double temperature)
{
    if (m_temperature == temperature)
        return;
    m_temperature = temperature;
    emit temperatureChanged();
}

void ChatSession::setTokenLimit(int tokenLimit)
{
    if (m_tokenLimit == tokenLimit)
        return;
    m_tokenLimit = tokenLimit;
    emit tokenLimitChanged();
}

void ChatSession::setDefaultSystemPrompt(const QString &text)
{
    if (m_defaultSystemPrompt == text)
        return;
    m_defaultSystemPrompt = text;
    QSettings settings;
    settings.setValue(QLatin1String(systemPromptKey), text);
    settings.sync();
    emit defaultSystemPromptChanged();
}

QString ChatSession::systemPromptFor(const Conversation &conversation) const
{
    return conversation.system.value_or(m_defaultSystemPrompt);
}

// The send/stop control's rule; the first match wins.
bool ChatSession::canSend() const
{
    if (m_generating)
        return true; // acts as Stop
    if (m_library.loading() || !m_engine.hasLoadedModel())
        return false;
    // Spaces count as text here; send() itself trims them away.
    if (m_prompt.isEmpty() && !m_attachment)
        return false;
    if (m_attachment && !m_engine.vision())
        return false;
    return true;
}

void ChatSession::followCanSend()
{
    m_canSend = canSend();
    const auto update = [this] {
        const bool now = canSend();
        if (now == m_canSend)
            return;
        m_canSend = now;
        emit canSendChanged();
    };
    connect(this, &ChatSession::generatingChanged, this, update);
    connect(&m_library, &ModelLibrary::loadingChanged, this, update);
    connect(&m_engine, &EngineConnection::stateChanged, this, update);
    connect(this, &ChatSession::promptChanged, this, update);
    connect(this, &ChatSession::attachmentChanged, this, update);
}

bool ChatSession::canRegenerate() const
{
    return modelCanAnswer();
}

void ChatSession::followCanRegenerate()
{
    m_canRegenerate = canRegenerate();
    const auto update = [this] {
        const bool now = canRegenerate();
        if (now == m_canRegenerate)
            return;
        m_canRegenerate = now;
        emit canRegenerateChanged();
    };
    connect(this, &ChatSession::generatingChanged, this, update);
    connect(&m_library, &ModelLibrary::loadingChanged, this, update);
    connect(&m_engine, &EngineConnection::stateChanged, this, update);
}

bool ChatSession::modelCanAnswer() const
{
    return !m_generating && !m_library.loading() && m_engine.hasLoadedModel();
}

std::optional<ChatMessage> ChatSession::draftQuestion() const
{
    const QString trimmed = m_prompt.trimmed();
    if (trimmed.isEmpty() && !m_attachment)
        return std::nullopt;
    ChatMessage question;
    question.role = QStringLiteral("user");
    question.text = trimmed.isEmpty() ? QStringLiteral("Describe this image.") : trimmed;
    question.image = m_attachment;
    return question;
}

QJsonArray ChatSession::requestMessages(const QList<ChatMessage> &messages)
{
    QJsonArray payloads;
    for (const ChatMessage &message : messages)
        payloads.append(message.payload());
    return payloads;
}

QJsonArray ChatSession::sentMessages(const QList<ChatMessage> &messages) const
{
    // The system prompt, when there is one, goes first; it is not part of the history.
    QJsonArray payloads;
    const Conversation *conversation = m_conversations.selected();
    const QString system = conversation ? systemPromptFor(*conversation) : QString();
    if (!system.trimmed().isEmpty())
        payloads.append(ChatMessage{QUuid(), QStringLiteral("system"), system, std::nullopt}.payload());
    for (const QJsonValue &payload : requestMessages(messages))
        payloads.append(payload);
    return payloads;
}

void ChatSession::send()
{
    if (!modelCanAnswer())
        return;
    const auto question = draftQuestion();
    if (!question)
        return;
    ChatMessage answer;
    answer.role = QStringLiteral("assistant");

    if (m_editedQuestion) {
        const auto asked = m_conversations.resend(*m_editedQuestion, *question, answer);
        if (!asked) {
            // The question is gone; what was typed stays in the composer.
            endEdit(false);
            return;
        }
        // The draft set aside for the edit comes back in place of the sent text.
        endEdit(true);
        startReply(*asked, answer.id);
        return;
    }

    const auto asked = m_conversations.ask(*question, answer, Conversation::titleFor(question->text));
    if (!asked)
        return;
    setPrompt(QString());
    setAttachment(std::nullopt);
    startReply(*asked, answer.id);
}

void ChatSession::regenerate()
{
    if (!modelCanAnswer())
        return;
    ChatMessage answer;
    answer.role = QStringLiteral("assistant");
    const auto asked = m_conversations.retry(answer);
    if (!asked)
        return;
    startReply(*asked, answer.id);
}

void ChatSession::startReply(const QList<ChatMessage> &asked, const QUuid &answerID)
{
    const std::optional<QUuid> conversationID = m_conversations.selectedID();
    if (!conversationID)
        return;
    m_replyingConversation = conversationID;
    setGenerating(true);
    emit errorCleared();
    startExchange(asked, *conversationID, answerID);
}

void ChatSession::startExchange(const QList<ChatMessage> &asked, const QUuid &conversationID, const QUuid &answerID)
{
    auto *exchange = new ChatExchange(&m_engine.client(), sentMessages(asked), this);
    connect(exchange, &ChatExchange::replyGrew, this, [this, answerID](const QString &piece, const QString &reply) {
        m_conversations.extendAssistant(answerID, piece, reply);
    });
    connect(exchange, &ChatExchange::reasoningTimed, this,
            [this, answerID](qint64 seconds) { m_conversations.setThinkingSeconds(answerID, seconds); });
    connect(exchange, &ChatExchange::replyReplaced, this,
            [this, answerID](const QString &text) { m_conversations.updateAssistant(answerID, text); });
    connect(exchange, &ChatExchange::failed, this, &ChatSession::errorRaised);
    connect(exchange, &ChatExchange::contextReported, this, [this, asked, conversationID](const ContextUse &use) {
        // The messages left out are the earliest; the model saw from the next one on.
        const QUuid firstSeen = use.droppedMessages > 0 && use.droppedMessages < asked.size()
            ? asked.at(static_cast<qsizetype>(use.droppedMessages)).id
            : QUuid();
        emit replyContextReported(conversationID, use, firstSeen);
    });
    // Every exchange ends by saving the history and fetching the figures of its run.
    connect(exchange, &ChatExchange::ended, this, [this] {
        m_replyingConversation.reset();
        setGenerating(false);
        m_conversations.save();
        QTimer::singleShot(0, this, [this] { m_engine.refresh(); });
    });
    m_generationTask = exchange;
    // The settings are read as the exchange starts, on the next turn of the event loop.
    QTimer::singleShot(0, exchange, [this, exchange] { exchange->begin(m_temperature, m_tokenLimit); });
}

void ChatSession::stop()
{
    if (m_generationTask)
        m_generationTask->cancel();
}

void ChatSession::sendOrStop()
{
    if (m_generating)
        stop();
    else
        send();
}

void ChatSession::newChat()
{
    if (m_generating)
        return;
    m_conversations.startNew();
    setPrompt(QString());
    setAttachment(std::nullopt);
    m_conversations.save();
}

void ChatSession::selectConversation(const QUuid &id)
{
    if (!m_generating)
        m_conversations.select(id);
}

void ChatSession::attachImage(FileChooser *chooser)
{
    const QStringList files = chooser ? chooser->chooseFilesToOpen(FileChooser::Kind::Images, false) : QStringList();
    if (files.isEmpty())
        return;
    const ImageAttachment image = ImageAttachment::read(files.first());
    if (!image.ok()) {
        emit errorRaised(image.failure);
        return;
    }
    setAttachment(image.dataURL);

    // Lets the engine encode the image while the user is still typing; the message
    // carries the whole image all the same, so the outcome does not matter.
    if (m_engine.vision())
        m_engine.client().request(QStringLiteral("api/encode"), QJsonObject{{QStringLiteral("url"), image.dataURL}},
                                  [](const EngineReply &) {});
}

void ChatSession::beginEdit(const QUuid &questionID)
{
    const Conversation *conversation = m_conversations.selected();
    if (m_generating || !conversation)
        return;
    const auto found = std::find_if(conversation->messages.cbegin(), conversation->messages.cend(),
                                    [&questionID](const ChatMessage &message) { return message.id == questionID; });
    if (found == conversation->messages.cend() || found->role != QLatin1String("user"))
        return;
    if (!m_editedQuestion)
        m_setAside = Draft{m_prompt, m_attachment};
    m_editedQuestion = questionID;
    setPrompt(found->text);
    setAttachment(found->image);
    emit editingChanged();
}

void ChatSession::editLastQuestion()
{
    const Conversation *conversation = m_conversations.selected();
    if (m_generating || editing() || !m_prompt.isEmpty() || m_attachment || !conversation)
        return;
    const auto last = std::find_if(conversation->messages.crbegin(), conversation->messages.crend(),
                                   [](const ChatMessage &message) { return message.role == QLatin1String("user"); });
    if (last != conversation->messages.crend())
        beginEdit(last->id);
}

void ChatSession::cancelEdit()
{
    endEdit(true);
}

void ChatSession::endEdit(bool restoreDraft)
{
    if (!m_editedQuestion)
        return;
    m_editedQuestion.reset();
    const Draft draft = std::exchange(m_setAside, Draft{});
    if (restoreDraft) {
        setPrompt(draft.prompt);
        setAttachment(draft.attachment);
    }
    emit editingChanged();
}

bool ChatSession::deleteConversation(const QUuid &id)
{
    if (m_generating && m_replyingConversation == id)
        return false;
    return m_conversations.remove(id);
}

void ChatSession::undo()
{
    const ConversationUndo &pending = m_conversations.undoRecord();
    const auto conversation = pending.conversation();
    if (!conversation)
        return;
    if (pending.kind() == ConversationUndo::Kind::Edit) {
        cancelEdit();
        // The reply to the edited question goes with it.
        if (m_generating && m_replyingConversation == conversation)
            stop();
    }
    m_conversations.undo(!m_generating);
}
