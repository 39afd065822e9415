#include "EngineStore.h"

#include "chat/ConversationExport.h"
#include "chat/ConversationUndo.h"
#include "library/ContextChoiceListModel.h"
#include "model/HistoryFile.h"

#include <QDir>

namespace {

// The history file in the data folder, which is created (0700) if need be.
QString historyFilePath(const QString &dataFolder)
{
    HistoryFile::prepareFolder(dataFolder);
    return QDir(dataFolder).filePath(QStringLiteral("conversations.json"));
}

} // namespace

EngineStore::EngineStore(QObject *parent)
    : QObject(parent),
      m_dataFolder(HistoryFile::defaultFolder()),
      m_engine(new EngineConnection(QDir(QDir::homePath()).filePath(QStringLiteral(".vorn/models")), this)),
      m_conversations(new Conversations(historyFilePath(m_dataFolder), this)),
      m_library(new ModelLibrary(*m_engine, this)),
      m_chat(new ChatSession(*m_engine, *m_conversations, *m_library, this)),
      m_contextMeter(new ContextMeter(*m_engine, *m_conversations, *m_chat, *m_library, this))
{
    m_library->setReplyCheck([this] { return m_chat->generating(); });
    m_engine->setBusyCheck([this] { return m_library->loading() || m_chat->generating(); });
    m_engine->setReplyInFlight([this] { return m_chat->generationTask(); });
    connectCollaborators();
}

EngineStore::~EngineStore()
{
    // A reply still streaming ends as stopped and is saved while everything it
    // touches is still there.
    m_chat->stop();
}

void EngineStore::connectCollaborators()
{
    connect(m_engine, &EngineConnection::stateChanged, this, &EngineStore::stateChanged);
    connect(m_engine, &EngineConnection::readyChanged, this, &EngineStore::readyChanged);
    connect(m_engine, &EngineConnection::activityChanged, this, &EngineStore::activityChanged);
    connect(m_engine, &EngineConnection::statusChanged, this, [this] {
        if (m_onStatusChange)
            m_onStatusChange();
    });
    connect(m_conversations, &Conversations::selectedIDChanged, this, &EngineStore::selectedIDChanged);
    connect(m_library, &ModelLibrary::loadingChanged, this, &EngineStore::loadingChanged);
    connect(m_chat, &ChatSession::generatingChanged, this, &EngineStore::generatingChanged);
    connect(m_chat, &ChatSession::promptChanged, this, &EngineStore::promptChanged);
    connect(m_chat, &ChatSession::attachmentChanged, this, &EngineStore::attachmentChanged);
    connect(m_chat, &ChatSession::temperatureChanged, this, &EngineStore::temperatureChanged);
    connect(m_chat, &ChatSession::tokenLimitChanged, this, &EngineStore::tokenLimitChanged);
    connect(m_chat, &ChatSession::canSendChanged, this, &EngineStore::canSendChanged);
    connect(m_chat, &ChatSession::canRegenerateChanged, this, &EngineStore::canRegenerateChanged);
    connect(m_chat, &ChatSession::editingChanged, this, &EngineStore::editingChanged);
    connect(m_chat, &ChatSession::defaultSystemPromptChanged, this, &EngineStore::defaultSystemPromptChanged);
    connect(&m_conversations->undoRecord(), &ConversationUndo::changed, this, &EngineStore::undoChanged);
    for (const auto changed : {&EngineStore::defaultSystemPromptChanged, &EngineStore::selectedIDChanged})
        connect(this, changed, this, &EngineStore::systemPromptChanged);
    connect(m_conversations, &Conversations::systemChanged, this, &EngineStore::systemPromptChanged);
    connect(m_library, &ModelLibrary::contextChoiceChanged, this, &EngineStore::contextChoiceChanged);
    connect(m_contextMeter, &ContextMeter::changed, this, &EngineStore::contextMeterChanged);
    // The meter shows only with a model, and the notice only with a draft.
    connect(m_engine, &EngineConnection::stateChanged, this, &EngineStore::contextMeterChanged);
    connect(m_chat, &ChatSession::promptChanged, this, &EngineStore::contextMeterChanged);
    connect(m_chat, &ChatSession::attachmentChanged, this, &EngineStore::contextMeterChanged);
    for (const auto changed : {&EngineStore::loadingChanged, &EngineStore::generatingChanged})
        connect(this, changed, this, &EngineStore::canChangeModelChanged);

    // Every collaborator shows its failures through the one error line.
    const auto show = [this](const QString &message) { setError(message); };
    const auto clear = [this] { setError(std::nullopt); };
    connect(m_engine, &EngineConnection::errorRaised, this, show);
    connect(m_library, &ModelLibrary::errorRaised, this, show);
    connect(m_library, &ModelLibrary::errorCleared, this, clear);
    connect(m_chat, &ChatSession::errorRaised, this, show);
    connect(m_chat, &ChatSession::errorCleared, this, clear);
}

// --- published state ---------------------------------------------------------------------

QVariant EngineStore::stateValue() const
{
    return state() ? QVariant(state()->toJson().toVariantMap()) : QVariant();
}

QVariant EngineStore::errorValue() const
{
    return m_error ? QVariant(*m_error) : QVariant();
}

QVariant EngineStore::attachmentValue() const
{
    return attachment() ? QVariant(*attachment()) : QVariant();
}

QString EngineStore::selectedIDText() const
{
    return selectedID() ? uuidText(*selectedID()) : QString();
}

int EngineStore::contextChoiceIndex() const
{
    return ContextChoiceListModel::rowOf(contextChoice());
}

QString EngineStore::contextMeterLevel() const
{
    switch (m_contextMeter->level()) {
    case ContextMeter::Level::Overflowing:
        return QStringLiteral("overflowing");
    case ContextMeter::Level::NearlyFull:
        return QStringLiteral("nearlyFull");
    case ContextMeter::Level::Comfortable:
        break;
    }
    return QStringLiteral("comfortable");
}

QString EngineStore::contextStartID() const
{
    const auto first = m_contextMeter->firstSeenMessage();
    return first ? uuidText(*first) : QString();
}

void EngineStore::chooseContext(int row)
{
    const QList<int> &choices = ContextChoiceListModel::choices();
    if (row >= 0 && row < choices.size())
        setContextChoice(choices.at(row));
    else
        emit contextChoiceChanged();
}

void EngineStore::setError(const std::optional<QString> &error)
{
    m_error = error;
    emit errorChanged();
}

void EngineStore::setErrorValue(const QVariant &error)
{
    setError(error.isValid() && !error.isNull() ? std::optional<QString>(error.toString()) : std::nullopt);
}

void EngineStore::setAttachmentValue(const QVariant &attachment)
{
    setAttachment(attachment.isValid() && !attachment.isNull() ? std::optional<QString>(attachment.toString())
                                                               : std::nullopt);
}

void EngineStore::setSelectedIDText(const QString &id)
{
    if (id.isEmpty()) {
        setSelectedID(std::nullopt);
        return;
    }
    if (const auto parsed = uuidFromText(id))
        setSelectedID(*parsed);
}

void EngineStore::setShowLibrary(bool show)
{
    if (m_showLibrary == show)
        return;
    m_showLibrary = show;
    emit showLibraryChanged();
}

// --- operations ----------------------------------------------------------------------------

void EngineStore::shutdown()
{
    m_chat->stop();
    m_engine->shutdown();
    save();
}

void EngineStore::selectConversation(const QString &id)
{
    if (const auto parsed = uuidFromText(id))
        m_chat->selectConversation(*parsed);
}

void EngineStore::exportChat()
{
    if (!m_fileChooser)
        return;
    if (const auto failure = ConversationExport::save(*m_fileChooser, exported()))
        setError(*failure);
}

ConversationExport::Content EngineStore::exported() const
{
    const Conversation *conversation = m_conversations->selected();
    if (!conversation)
        return {};
    return {conversation->title, m_chat->systemPromptFor(*conversation), conversation->messages};
}

QString EngineStore::exportText() const
{
    return ConversationExport::plainText(exported());
}

QString EngineStore::exportMarkdown() const
{
    return ConversationExport::markdown(exported());
}

QString EngineStore::lastReplyText() const
{
    const QList<ChatMessage> shown = messages();
    for (auto message = shown.crbegin(); message != shown.crend(); ++message) {
        if (message->role == QLatin1String("assistant"))
            return message->text;
    }
    return {};
}

// --- managing conversations ----------------------------------------------------------------

void EngineStore::renameConversation(const QString &id, const QString &title)
{
    if (const auto parsed = uuidFromText(id))
        m_conversations->rename(*parsed, title);
}

void EngineStore::deleteConversation(const QString &id)
{
    if (const auto parsed = uuidFromText(id))
        m_chat->deleteConversation(*parsed);
}

void EngineStore::setPinned(const QString &id, bool pinned)
{
    if (const auto parsed = uuidFromText(id))
        m_conversations->setPinned(*parsed, pinned);
}

void EngineStore::setSystemOverride(const QString &text)
{
    if (selectedID())
        m_conversations->setSystem(*selectedID(), text);
}

void EngineStore::clearSystemOverride()
{
    if (selectedID())
        m_conversations->setSystem(*selectedID(), std::nullopt);
}

QString EngineStore::systemPrompt() const
{
    const Conversation *conversation = m_conversations->selected();
    return conversation ? m_chat->systemPromptFor(*conversation) : defaultSystemPrompt();
}

bool EngineStore::hasSystemOverride() const
{
    const Conversation *conversation = m_conversations->selected();
    return conversation && conversation->system.has_value();
}

QString EngineStore::replyingIDText() const
{
    const auto &replying = m_chat->replyingConversation();
    return replying ? uuidText(*replying) : QString();
}

bool EngineStore::canUndo() const
{
    return m_conversations->undoRecord().available();
}

QString EngineStore::undoText() const
{
    return m_conversations->undoRecord().text();
}

void EngineStore::dismissUndo()
{
    m_conversations->undoRecord().drop();
}

void EngineStore::setUndoTimeout(int milliseconds)
{
    m_conversations->undoRecord().setTimeout(milliseconds);
}

void EngineStore::beginEdit(const QString &messageId)
{
    if (const auto parsed = uuidFromText(messageId))
        m_chat->beginEdit(*parsed);
}
