#include "EngineStore.h"

#include "chat/ConversationListModel.h"
#include "chat/MessageListModel.h"
#include "library/DownloadListModel.h"
#include "library/LocalModelListModel.h"
#include "model/HistoryFile.h"

#include <QCoreApplication>
#include <QDir>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QProcess>
#include <QStandardPaths>

EngineStore::EngineStore(QObject *parent)
    : QObject(parent),
      m_network(new QNetworkAccessManager(this)),
      m_conversationList(new ConversationListModel(this)),
      m_messageList(new MessageListModel(this)),
      m_modelList(new LocalModelListModel(this)),
      m_downloadList(new DownloadListModel(this))
{
    // Local engine only: never go through a system proxy.
    m_network->setProxy(QNetworkProxy::NoProxy);

    m_conversations.append(Conversation());

    m_directory = QDir(QDir::homePath()).filePath(QStringLiteral(".vorn/models"));

    const QString supportFolder = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (supportFolder.isEmpty())
        qFatal("No application data folder is available");
    m_dataFolder = QDir(supportFolder).filePath(QStringLiteral("Vorn"));
    HistoryFile::prepareFolder(m_dataFolder);

    m_historyFile = QDir(m_dataFolder).filePath(QStringLiteral("conversations.json"));
    auto history = HistoryFile::load(m_historyFile);
    if (history && !history->isEmpty())
        m_conversations = std::move(*history);
    else if (!history)
        HistoryFile::keepUnreadableCopy(m_historyFile);

    m_selectedID = m_conversations.first().id;

    followCanSend();
}

EngineStore::~EngineStore()
{
    if (m_pollTask)
        m_pollTask->cancel();
    if (m_generationTask)
        m_generationTask->cancel();
    // A stopped engine gets a moment to leave cleanly; QProcess would kill it outright.
    for (QProcess *child : findChildren<QProcess *>()) {
        child->disconnect(this);
        if (child->state() != QProcess::NotRunning) {
            if (child == m_process)
                child->terminate();
            child->waitForFinished(3000);
        }
    }
}

// --- published state -------------------------------------------------------------

QVariant EngineStore::stateValue() const
{
    if (!m_state)
        return {};
    return m_state->toJson().toVariantMap();
}

QVariant EngineStore::errorValue() const
{
    return m_error ? QVariant(*m_error) : QVariant();
}

QVariant EngineStore::attachmentValue() const
{
    return m_attachment ? QVariant(*m_attachment) : QVariant();
}

QVariantList EngineStore::conversationsValue() const
{
    QVariantList list;
    list.reserve(m_conversations.size());
    for (const Conversation &conversation : m_conversations)
        list.append(conversation.toJson().toVariantMap());
    return list;
}

QString EngineStore::selectedIDText() const
{
    return m_selectedID ? uuidText(*m_selectedID) : QString();
}

void EngineStore::setState(const std::optional<EngineState> &state)
{
    m_state = state;
    m_modelList->update(m_state ? m_state->models : QList<LocalModel>());
    m_downloadList->update(m_state ? m_state->downloads : QList<DownloadState>());
    emit stateChanged();
}

void EngineStore::setReady(bool ready)
{
    if (m_ready == ready)
        return;
    m_ready = ready;
    emit readyChanged();
}

void EngineStore::setActivity(const QString &activity)
{
    if (m_activity == activity)
        return;
    m_activity = activity;
    emit activityChanged();
}

void EngineStore::setError(const std::optional<QString> &error)
{
    m_error = error;
    emit errorChanged();
}

void EngineStore::setErrorValue(const QVariant &error)
{
    if (!error.isValid() || error.isNull())
        setError(std::nullopt);
    else
        setError(error.toString());
}

void EngineStore::setLoading(bool loading)
{
    if (m_loading == loading)
        return;
    m_loading = loading;
    emit loadingChanged();
}

void EngineStore::setGenerating(bool generating)
{
    if (m_generating == generating)
        return;
    m_generating = generating;
    emit generatingChanged();
}

void EngineStore::setPrompt(const QString &prompt)
{
    if (m_prompt == prompt)
        return;
    m_prompt = prompt;
    emit promptChanged();
}

void EngineStore::setAttachment(const std::optional<QString> &attachment)
{
    if (m_attachment == attachment)
        return;
    m_attachment = attachment;
    emit attachmentChanged();
}

void EngineStore::setAttachmentValue(const QVariant &attachment)
{
    if (!attachment.isValid() || attachment.isNull())
        setAttachment(std::nullopt);
    else
        setAttachment(attachment.toString());
}

void EngineStore::setSelectedID(const std::optional<QUuid> &id)
{
    if (m_selectedID == id)
        return;
    const int previousIndex = selectedIndex();
    // The message list announces its reset while it still shows the old conversation.
    m_messageList->beginSelectionChange();
    m_selectedID = id;
    m_messageList->finishSelectionChange();
    m_conversationList->selectionMoved(previousIndex, selectedIndex());
    emit selectedIDChanged();
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

void EngineStore::setTemperature(double temperature)
{
    if (m_temperature == temperature)
        return;
    m_temperature = temperature;
    emit temperatureChanged();
}

void EngineStore::setTokenLimit(int tokenLimit)
{
    if (m_tokenLimit == tokenLimit)
        return;
    m_tokenLimit = tokenLimit;
    emit tokenLimitChanged();
}

// --- computed ----------------------------------------------------------------------

bool EngineStore::hasLoadedModel() const
{
    return m_state && m_state->loaded && !m_state->loaded->isEmpty();
}

QString EngineStore::loadedName() const
{
    if (!hasLoadedModel())
        return QStringLiteral("No model loaded");
    QString name = *m_state->loaded;
    name.remove(QStringLiteral(".gguf"));
    return name;
}

int EngineStore::selectedIndex() const
{
    if (!m_selectedID)
        return -1;
    for (int index = 0; index < m_conversations.size(); ++index) {
        if (m_conversations.at(index).id == *m_selectedID)
            return index;
    }
    return -1;
}

QList<ChatMessage> EngineStore::messages() const
{
    const int index = selectedIndex();
    return index < 0 ? QList<ChatMessage>() : m_conversations.at(index).messages;
}

// --- conversation changes ----------------------------------------------------------

void EngineStore::insertConversation(int index, const Conversation &conversation)
{
    m_conversationList->beginInsert(index);
    m_conversations.insert(index, conversation);
    m_conversationList->finishInsert();
    emit conversationsChanged();
}

void EngineStore::setConversationTitle(int index, const QString &title)
{
    m_conversations[index].title = title;
    m_conversationList->conversationChanged(index, {ConversationListModel::TitleRole, Qt::DisplayRole});
    emit conversationsChanged();
}

void EngineStore::appendMessage(int conversationIndex, const ChatMessage &message)
{
    const bool shown = conversationIndex == selectedIndex();
    const int row = static_cast<int>(m_conversations.at(conversationIndex).messages.size());
    if (shown)
        m_messageList->beginAppend(row);
    m_conversations[conversationIndex].messages.append(message);
    if (shown)
        m_messageList->finishAppend();
    m_conversationList->conversationChanged(conversationIndex);
    emit conversationsChanged();
}

void EngineStore::setMessageText(int conversationIndex, int messageIndex, const QString &text)
{
    m_conversations[conversationIndex].messages[messageIndex].text = text;
    if (conversationIndex == selectedIndex())
        m_messageList->messageTextChanged(messageIndex);
    m_conversationList->conversationChanged(conversationIndex);
    emit conversationsChanged();
}

void EngineStore::save()
{
    HistoryFile::save(m_historyFile, m_conversations);
}

void EngineStore::runStatusChange()
{
    if (m_onStatusChange)
        m_onStatusChange();
}

// --- engine location -----------------------------------------------------------------

namespace {
QString &engineLocationOverride()
{
    static QString location;
    return location;
}
} // namespace

void EngineStore::setEngineLocationForTesting(const QString &path)
{
    engineLocationOverride() = path;
}

QString EngineStore::engineLocation()
{
    if (!engineLocationOverride().isEmpty())
        return engineLocationOverride();
    const QString applicationFolder = QCoreApplication::applicationDirPath();
    if (applicationFolder.isEmpty())
        return {};
#if defined(Q_OS_WIN)
    return QDir(applicationFolder).filePath(QStringLiteral("vorn-engine.exe"));
#else
    return QDir(applicationFolder).filePath(QStringLiteral("vorn-engine"));
#endif
}

void EngineStore::connectForTesting(const QUrl &baseURL)
{
    m_baseURL = baseURL;
}

void EngineStore::setTimeoutsForTesting(int requestMilliseconds, int chatMilliseconds)
{
    m_requestTimeoutMilliseconds = requestMilliseconds;
    m_chatTimeoutMilliseconds = chatMilliseconds;
}
