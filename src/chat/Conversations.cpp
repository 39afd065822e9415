// Sending, stopping and new conversations.
#include "ChatExchange.h"
#include "engine/EngineStore.h"

#include <QJsonArray>
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

// The send/stop control's rule; the first match wins.
bool EngineStore::canSend() const
{
    if (m_generating)
        return true;  // acts as Stop
    if (m_loading || !hasLoadedModel())
        return false;
    // Spaces count as text here; send() itself trims them away.
    if (m_prompt.isEmpty() && !m_attachment)
        return false;
    if (m_attachment && !vision())
        return false;
    return true;
}

void EngineStore::followCanSend()
{
    m_canSend = canSend();
    const auto update = [this] {
        const bool now = canSend();
        if (now == m_canSend)
            return;
        m_canSend = now;
        emit canSendChanged();
    };
    for (const auto changed : {&EngineStore::generatingChanged, &EngineStore::loadingChanged,
                               &EngineStore::stateChanged, &EngineStore::promptChanged,
                               &EngineStore::attachmentChanged})
        connect(this, changed, this, update);
}

void EngineStore::send()
{
    if (m_generating || m_loading || !hasLoadedModel())
        return;
    const QString trimmed = m_prompt.trimmed();
    if (trimmed.isEmpty() && !m_attachment)
        return;
    const QString text = trimmed.isEmpty() ? QStringLiteral("Describe this image.") : trimmed;

    ChatMessage question;
    question.role = QStringLiteral("user");
    question.text = text;
    question.image = m_attachment;

    const int index = selectedIndex();
    if (index < 0)
        return;
    if (m_conversations.at(index).messages.isEmpty())
        setConversationTitle(index, firstCharacters(text, 40));
    appendMessage(index, question);

    QJsonArray payloads;
    for (const ChatMessage &message : m_conversations.at(index).messages)
        payloads.append(message.payload());

    ChatMessage answer;
    answer.role = QStringLiteral("assistant");
    appendMessage(index, answer);

    setPrompt(QString());
    setAttachment(std::nullopt);
    setGenerating(true);
    setError(std::nullopt);

    auto *exchange = new ChatExchange(this, payloads, answer.id);
    m_generationTask = exchange;
    QTimer::singleShot(0, exchange, &ChatExchange::begin);
}

void EngineStore::stop()
{
    if (m_generationTask)
        m_generationTask->cancel();
}

void EngineStore::updateAssistant(const QUuid &id, const QString &text)
{
    const int index = selectedIndex();
    if (index < 0)
        return;
    const auto &messages = m_conversations.at(index).messages;
    for (int row = 0; row < messages.size(); ++row) {
        if (messages.at(row).id == id) {
            setMessageText(index, row, text);
            return;
        }
    }
}

void EngineStore::newChat()
{
    if (m_generating)
        return;
    const Conversation conversation;
    insertConversation(0, conversation);
    setSelectedID(conversation.id);
    setPrompt(QString());
    setAttachment(std::nullopt);
    save();
}
