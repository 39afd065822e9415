#include "EngineStore.h"

#include "EngineConnection.h"
#include "chat/ChatSession.h"
#include "chat/ConversationExport.h"
#include "chat/ConversationListModel.h"
#include "chat/Conversations.h"
#include "chat/MessageListModel.h"
#include "library/DownloadListModel.h"
#include "library/LocalModelListModel.h"
#include "library/ModelLibrary.h"
#include "model/HistoryFile.h"

#include <QDir>
#include <QStandardPaths>

namespace {

// "Vorn" in the application data folder.
QString dataFolderPath()
{
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (folder.isEmpty())
        qFatal("No application data folder is available");
    return QDir(folder).filePath(QStringLiteral("Vorn"));
}

// The history file in the data folder, which is created (0700) if need be.
QString historyFilePath(const QString &dataFolder)
{
    HistoryFile::prepareFolder(dataFolder);
    return QDir(dataFolder).filePath(QStringLiteral("conversations.json"));
}

} // namespace

EngineStore::EngineStore(QObject *parent)
    : QObject(parent),
      m_dataFolder(dataFolderPath()),
      m_engine(new EngineConnection(QDir(QDir::homePath()).filePath(QStringLiteral(".vorn/models")), this)),
      m_conversations(new Conversations(historyFilePath(m_dataFolder), this)),
      m_library(new ModelLibrary(*m_engine, this)),
      m_chat(new ChatSession(*m_engine, *m_conversations, *m_library, this))
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

const std::optional<EngineState> &EngineStore::state() const { return m_engine->state(); }
bool EngineStore::ready() const { return m_engine->ready(); }
QString EngineStore::activity() const { return m_engine->activity(); }
bool EngineStore::loading() const { return m_library->loading(); }
bool EngineStore::generating() const { return m_chat->generating(); }
QString EngineStore::prompt() const { return m_chat->prompt(); }
const std::optional<QString> &EngineStore::attachment() const { return m_chat->attachment(); }
const QList<Conversation> &EngineStore::conversations() const { return m_conversations->all(); }
const std::optional<QUuid> &EngineStore::selectedID() const { return m_conversations->selectedID(); }
double EngineStore::temperature() const { return m_chat->temperature(); }
int EngineStore::tokenLimit() const { return m_chat->tokenLimit(); }

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

void EngineStore::setError(const std::optional<QString> &error)
{
    m_error = error;
    emit errorChanged();
}

void EngineStore::setErrorValue(const QVariant &error)
{
    setError(error.isValid() && !error.isNull() ? std::optional<QString>(error.toString()) : std::nullopt);
}

void EngineStore::setPrompt(const QString &prompt) { m_chat->setPrompt(prompt); }
void EngineStore::setAttachment(const std::optional<QString> &attachment) { m_chat->setAttachment(attachment); }

void EngineStore::setAttachmentValue(const QVariant &attachment)
{
    setAttachment(attachment.isValid() && !attachment.isNull() ? std::optional<QString>(attachment.toString())
                                                               : std::nullopt);
}

void EngineStore::setSelectedID(const std::optional<QUuid> &id) { m_conversations->select(id); }

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

void EngineStore::setTemperature(double temperature) { m_chat->setTemperature(temperature); }
void EngineStore::setTokenLimit(int tokenLimit) { m_chat->setTokenLimit(tokenLimit); }

// --- computed ------------------------------------------------------------------------------

bool EngineStore::hasLoadedModel() const { return m_engine->hasLoadedModel(); }
QString EngineStore::loadedName() const { return m_engine->loadedName(); }
bool EngineStore::vision() const { return m_engine->vision(); }
QString EngineStore::backend() const { return m_engine->backend(); }
QList<ChatMessage> EngineStore::messages() const { return m_conversations->messages(); }
bool EngineStore::canSend() const { return m_chat->canSend(); }
bool EngineStore::canChangeModel() const { return m_library->canChangeModel(); }
int EngineStore::selectedIndex() const { return m_conversations->selectedIndex(); }

QString EngineStore::directory() const { return m_engine->modelsFolder(); }
QString EngineStore::historyFile() const { return m_conversations->historyFile(); }
std::optional<QUrl> EngineStore::baseURL() const { return m_engine->client().baseURL(); }
QProcess *EngineStore::process() const { return m_engine->process(); }
CancellableTask *EngineStore::pollTask() const { return m_engine->pollTask(); }
CancellableTask *EngineStore::generationTask() const { return m_chat->generationTask(); }

ConversationListModel *EngineStore::conversationList() const { return m_conversations->list(); }
MessageListModel *EngineStore::messageList() const { return m_conversations->messageList(); }
LocalModelListModel *EngineStore::modelList() const { return m_library->modelList(); }
DownloadListModel *EngineStore::downloadList() const { return m_library->downloadList(); }

// --- operations ----------------------------------------------------------------------------

void EngineStore::start() { m_engine->start(); }

void EngineStore::shutdown()
{
    m_chat->stop();
    m_engine->shutdown();
    save();
}

QNetworkReply *EngineStore::request(const QString &path, const std::optional<QJsonObject> &body,
                                    std::function<void(const EngineReply &)> done)
{
    return m_engine->client().request(path, body, std::move(done));
}

QNetworkReply *EngineStore::refresh(std::function<void(bool)> done) { return m_engine->refresh(std::move(done)); }

void EngineStore::send() { m_chat->send(); }
void EngineStore::stop() { m_chat->stop(); }
void EngineStore::sendOrStop() { m_chat->sendOrStop(); }
void EngineStore::updateAssistant(const QUuid &id, const QString &text) { m_conversations->updateAssistant(id, text); }
void EngineStore::newChat() { m_chat->newChat(); }

void EngineStore::selectConversation(const QString &id)
{
    if (const auto parsed = uuidFromText(id))
        m_chat->selectConversation(*parsed);
}

void EngineStore::save() { m_conversations->save(); }
void EngineStore::attachImage() { m_chat->attachImage(m_fileChooser.get()); }

void EngineStore::exportChat()
{
    if (!m_fileChooser)
        return;
    if (const auto failure = ConversationExport::save(*m_fileChooser, messages()))
        setError(*failure);
}

QString EngineStore::exportText() const { return ConversationExport::text(messages()); }

void EngineStore::load(const QString &name) { m_library->load(name); }
void EngineStore::unload() { m_library->unload(); }
void EngineStore::importModels() { m_library->importModels(m_fileChooser.get()); }
void EngineStore::download(const QString &link) { m_library->download(link); }
void EngineStore::revealModels() { m_library->revealModels(); }
