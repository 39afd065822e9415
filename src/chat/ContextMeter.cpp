#include "ContextMeter.h"

#include "ChatSession.h"
#include "Conversations.h"
#include "MessageListModel.h"
#include "engine/EngineConnection.h"
#include "library/ModelLibrary.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkReply>

ContextMeter::ContextMeter(EngineConnection &engine, Conversations &conversations, const ChatSession &chat,
                           const ModelLibrary &library, QObject *parent)
    : QObject(parent), m_engine(engine), m_conversations(conversations), m_chat(chat), m_library(library)
{
    m_countDelay.setSingleShot(true);
    m_countDelay.setInterval(countDelayMilliseconds);
    connect(&m_countDelay, &QTimer::timeout, this, &ContextMeter::sendCount);

    // Another conversation: its figures are not known until counted.
    connect(&m_conversations, &Conversations::selectedIDChanged, this, [this] {
        setUse(std::nullopt, false);
        scheduleCount();
    });
    // The conversation changed outside a reply (a new one, messages added or edited).
    connect(m_conversations.messageList(), &MessageListModel::countChanged, this, &ContextMeter::scheduleCount);
    connect(m_conversations.messageList(), &MessageListModel::lastTextChanged, this, &ContextMeter::scheduleCount);
    connect(&m_chat, &ChatSession::promptChanged, this, &ContextMeter::scheduleCount);
    connect(&m_chat, &ChatSession::attachmentChanged, this, &ContextMeter::scheduleCount);
    // The reply limit decides the room kept for the reply, so what fits.
    connect(&m_chat, &ChatSession::tokenLimitChanged, this, &ContextMeter::scheduleCount);
    // The system prompt is sent first, so it takes its share too.
    connect(&m_chat, &ChatSession::defaultSystemPromptChanged, this, &ContextMeter::scheduleCount);
    connect(&m_conversations, &Conversations::systemChanged, this, &ContextMeter::scheduleCount);
    connect(&m_chat, &ChatSession::generatingChanged, this, [this] {
        if (m_chat.generating()) {
            m_replyReported = false;
            cancelCount();
        } else {
            replyEnded();
        }
    });
    connect(&m_chat, &ChatSession::replyContextReported, this,
            [this](const QUuid &conversationID, const ContextUse &use, const QUuid &firstSeen) {
                if (firstSeen.isNull())
                    m_cuts.remove(conversationID);
                else
                    m_cuts.insert(conversationID, Cut{firstSeen, use.droppedMessages});
                if (m_conversations.selectedID() == conversationID) {
                    m_replyReported = true;
                    setUse(use, false);
                }
                emit changed();
            });
    connect(&m_library, &ModelLibrary::loadingChanged, this, &ContextMeter::scheduleCount);
    connect(&m_engine, &EngineConnection::stateChanged, this, &ContextMeter::followModel);
}

bool ContextMeter::shown() const
{
    return m_use.has_value() && m_engine.hasLoadedModel();
}

QString ContextMeter::text() const
{
    if (!shown())
        return {};
    return QStringLiteral("%1 / %2 tokens").arg(groupedNumberText(m_use->tokens), groupedNumberText(m_use->size));
}

ContextMeter::Level ContextMeter::level() const
{
    if (!m_use)
        return Level::Comfortable;
    if (m_use->droppedMessages > 0)
        return Level::Overflowing;
    return m_use->nearlyFull() ? Level::NearlyFull : Level::Comfortable;
}

std::optional<QUuid> ContextMeter::firstSeenMessage() const
{
    const auto selected = m_conversations.selectedID();
    if (!selected)
        return std::nullopt;
    const auto cut = m_cuts.constFind(*selected);
    if (cut == m_cuts.cend())
        return std::nullopt;
    return cut->firstSeen;
}

bool ContextMeter::draftBeyondContext() const
{
    if (!shown() || !m_useIncludesDraft || !m_chat.draftQuestion())
        return false;
    const auto selected = m_conversations.selectedID();
    const auto cut = selected ? m_cuts.constFind(*selected) : m_cuts.cend();
    const qint64 alreadyLeftOut = cut != m_cuts.cend() ? cut->droppedMessages : 0;
    return m_use->droppedMessages > alreadyLeftOut;
}

bool ContextMeter::canCount() const
{
    return m_engine.hasLoadedModel() && !m_chat.generating() && !m_library.loading()
        && m_conversations.selectedID().has_value();
}

void ContextMeter::scheduleCount()
{
    if (!canCount())
        return;
    m_countDelay.start();
}

void ContextMeter::cancelCount()
{
    m_countDelay.stop();
    ++m_countNumber;
    if (m_countInFlight)
        EngineClient::cancelRequest(m_countInFlight);
    m_countInFlight = nullptr;
}

void ContextMeter::sendCount()
{
    if (!canCount())
        return;
    cancelCount();
    QList<ChatMessage> messages = m_conversations.messages();
    const auto question = m_chat.draftQuestion();
    if (question)
        messages.append(*question);
    if (messages.isEmpty()) {
        // Nothing to send takes nothing of the loaded context.
        setUse(m_modelContext > 0 ? std::optional<ContextUse>(ContextUse{0, m_modelContext, 0}) : std::nullopt, true);
        return;
    }
    const QJsonObject body{
        {QStringLiteral("messages"), m_chat.sentMessages(messages)},
        {QStringLiteral("max_tokens"), m_chat.tokenLimit()},
    };
    const quint64 number = m_countNumber;
    m_countInFlight = m_engine.client().request(
        QStringLiteral("api/count"), body, [this, number](const EngineReply &reply) {
            if (number != m_countNumber)
                return; // a newer count, or a reply, took over
            m_countInFlight = nullptr;
            const QJsonDocument document = QJsonDocument::fromJson(reply.body);
            // An engine without counting shows no meter.
            setUse(reply.ok() ? ContextUse::fromCount(document.object()) : std::nullopt, true);
        });
}

void ContextMeter::setUse(const std::optional<ContextUse> &use, bool includesDraft)
{
    if (m_use == use && m_useIncludesDraft == includesDraft)
        return;
    m_use = use;
    m_useIncludesDraft = includesDraft;
    emit changed();
}

void ContextMeter::followModel()
{
    const QString file = m_engine.loadedFile();
    const qint64 context = m_engine.state() ? m_engine.state()->ctx : 0;
    if (file == m_modelFile && context == m_modelContext)
        return;
    m_modelFile = file;
    m_modelContext = context;
    // Figures and cuts were about the model before.
    cancelCount();
    m_cuts.clear();
    setUse(std::nullopt, false);
    emit changed();
    scheduleCount();
}

void ContextMeter::replyEnded()
{
    // The reply's own figures hold until the draft or the conversation changes; a
    // reply that ended without them is counted instead.
    if (!m_replyReported)
        scheduleCount();
}
