#include "ChatSession.h"

#include "Conversations.h"
#include "ImageAttachment.h"
#include "engine/EngineConnection.h"
#include "engine/FileChooser.h"
#include "library/ModelLibrary.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QTextBoundaryFinder>
#include <QTimer>

namespace {

// The first count user-perceived characters (grapheme clusters) of text.
QString firstCharacters(const QString &text, int count)
{
    QTextBoundaryFinder boundaries(QTextBoundaryFinder::Grapheme, text);
    int taken = 0;
    qsizetype end = 0;
    while (taken < count) {
        const qsizetype next = boundaries.toNextBoundary();
        if (next < 0)
            return text;
        end = next;
        ++taken;
    }
    return text.left(end);
}

} // namespace

ChatSession::ChatSession(EngineConnection &engine, Conversations &conversations, const ModelLibrary &library,
                         QObject *parent)
    : QObject(parent), m_engine(engine), m_conversations(conversations), m_library(library)
{
    followCanSend();
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

void ChatSession::send()
{
    if (m_generating || m_library.loading() || !m_engine.hasLoadedModel())
        return;
    const auto question = draftQuestion();
    if (!question)
        return;
    ChatMessage answer;
    answer.role = QStringLiteral("assistant");

    const std::optional<QUuid> conversationID = m_conversations.selectedID();
    const auto asked = m_conversations.ask(*question, answer, firstCharacters(question->text, 40));
    if (!asked || !conversationID)
        return;

    setPrompt(QString());
    setAttachment(std::nullopt);
    setGenerating(true);
    emit errorCleared();
    startExchange(*asked, *conversationID, answer.id);
}

void ChatSession::startExchange(const QList<ChatMessage> &asked, const QUuid &conversationID, const QUuid &answerID)
{
    auto *exchange = new ChatExchange(&m_engine.client(), requestMessages(asked), this);
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
