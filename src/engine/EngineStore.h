#pragma once

#include "CancellableTask.h"
#include "EngineFailure.h"
#include "FileChooser.h"
#include "model/Conversation.h"
#include "model/EngineState.h"

#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>
#include <QUuid>
#include <QVariant>
#include <functional>
#include <memory>
#include <optional>

class QNetworkAccessManager;
class QNetworkReply;
class QProcess;
class ConversationListModel;
class MessageListModel;
class LocalModelListModel;
class DownloadListModel;

// The one model object of the app: it owns the engine process, the engine's last
// status, the conversations, the composer's draft and the generation settings.
// Views read its properties and call its operations; nothing else holds state.
// Everything runs on the main thread.
class EngineStore : public QObject {
    Q_OBJECT
    Q_MOC_INCLUDE("chat/ConversationListModel.h")
    Q_MOC_INCLUDE("chat/MessageListModel.h")
    Q_MOC_INCLUDE("library/LocalModelListModel.h")
    Q_MOC_INCLUDE("library/DownloadListModel.h")

    Q_PROPERTY(QVariant state READ stateValue NOTIFY stateChanged)
    Q_PROPERTY(bool ready READ ready NOTIFY readyChanged)
    Q_PROPERTY(QString activity READ activity NOTIFY activityChanged)
    Q_PROPERTY(QVariant error READ errorValue WRITE setErrorValue NOTIFY errorChanged)
    Q_PROPERTY(bool loading READ loading NOTIFY loadingChanged)
    Q_PROPERTY(bool generating READ generating NOTIFY generatingChanged)
    Q_PROPERTY(QString prompt READ prompt WRITE setPrompt NOTIFY promptChanged)
    Q_PROPERTY(QVariant attachment READ attachmentValue WRITE setAttachmentValue NOTIFY attachmentChanged)
    Q_PROPERTY(QVariantList conversations READ conversationsValue NOTIFY conversationsChanged)
    Q_PROPERTY(QString selectedID READ selectedIDText WRITE setSelectedIDText NOTIFY selectedIDChanged)
    Q_PROPERTY(bool showLibrary READ showLibrary WRITE setShowLibrary NOTIFY showLibraryChanged)
    Q_PROPERTY(double temperature READ temperature WRITE setTemperature NOTIFY temperatureChanged)
    Q_PROPERTY(int tokenLimit READ tokenLimit WRITE setTokenLimit NOTIFY tokenLimitChanged)

    // Derived from the properties above.
    Q_PROPERTY(bool hasError READ hasError NOTIFY errorChanged)
    Q_PROPERTY(bool hasAttachment READ hasAttachment NOTIFY attachmentChanged)
    Q_PROPERTY(bool hasState READ hasState NOTIFY stateChanged)
    Q_PROPERTY(bool hasLoadedModel READ hasLoadedModel NOTIFY stateChanged)
    Q_PROPERTY(QString loadedName READ loadedName NOTIFY stateChanged)
    Q_PROPERTY(bool vision READ vision NOTIFY stateChanged)
    // Whether the send/stop control acts: it stops while generating, and otherwise
    // sends only what the engine can take.
    Q_PROPERTY(bool canSend READ canSend NOTIFY canSendChanged)
    // Single members of the status, so rows and badges need not convert it whole.
    Q_PROPERTY(QString loadedFile READ loadedFile NOTIFY stateChanged)
    Q_PROPERTY(QString backend READ backend NOTIFY stateChanged)
    Q_PROPERTY(QString modelsFolder READ directory CONSTANT)
    Q_PROPERTY(QString dataFolder READ dataFolder CONSTANT)

    // List views of the same data, updated row by row.
    Q_PROPERTY(ConversationListModel *conversationList READ conversationList CONSTANT)
    Q_PROPERTY(MessageListModel *messageList READ messageList CONSTANT)
    Q_PROPERTY(LocalModelListModel *modelList READ modelList CONSTANT)
    Q_PROPERTY(DownloadListModel *downloadList READ downloadList CONSTANT)

public:
    explicit EngineStore(QObject *parent = nullptr);
    ~EngineStore() override;

    // --- published state -------------------------------------------------------
    const std::optional<EngineState> &state() const { return m_state; }
    QVariant stateValue() const;
    bool hasState() const { return m_state.has_value(); }
    bool ready() const { return m_ready; }
    QString activity() const { return m_activity; }
    const std::optional<QString> &error() const { return m_error; }
    QVariant errorValue() const;
    bool hasError() const { return m_error.has_value(); }
    bool loading() const { return m_loading; }
    bool generating() const { return m_generating; }
    QString prompt() const { return m_prompt; }
    const std::optional<QString> &attachment() const { return m_attachment; }
    QVariant attachmentValue() const;
    bool hasAttachment() const { return m_attachment.has_value(); }
    const QList<Conversation> &conversations() const { return m_conversations; }
    QVariantList conversationsValue() const;
    const std::optional<QUuid> &selectedID() const { return m_selectedID; }
    QString selectedIDText() const;
    bool showLibrary() const { return m_showLibrary; }
    double temperature() const { return m_temperature; }
    int tokenLimit() const { return m_tokenLimit; }

    void setState(const std::optional<EngineState> &state);
    void setReady(bool ready);
    void setActivity(const QString &activity);
    void setError(const std::optional<QString> &error);
    void setErrorValue(const QVariant &error);
    Q_INVOKABLE void clearError() { setError(std::nullopt); }
    void setLoading(bool loading);
    void setGenerating(bool generating);
    void setPrompt(const QString &prompt);
    void setAttachment(const std::optional<QString> &attachment);
    void setAttachmentValue(const QVariant &attachment);
    Q_INVOKABLE void clearAttachment() { setAttachment(std::nullopt); }
    void setSelectedID(const std::optional<QUuid> &id);
    void setSelectedIDText(const QString &id);
    void setShowLibrary(bool show);
    void setTemperature(double temperature);
    void setTokenLimit(int tokenLimit);

    // --- computed ----------------------------------------------------------------
    bool hasLoadedModel() const;
    QString loadedName() const;
    bool vision() const { return m_state && m_state->vision; }
    QString loadedFile() const { return m_state ? m_state->loaded.value_or(QString()) : QString(); }
    QString backend() const { return m_state ? m_state->backend.value_or(QString()) : QString(); }
    QList<ChatMessage> messages() const;
    bool canSend() const;
    // Index of the selected conversation in conversations(), or -1.
    int selectedIndex() const;

    QString directory() const { return m_directory; }
    QString dataFolder() const { return m_dataFolder; }
    QString historyFile() const { return m_historyFile; }
    std::optional<QUrl> baseURL() const { return m_baseURL; }
    QProcess *process() const { return m_process; }
    CancellableTask *pollTask() const { return m_pollTask; }
    CancellableTask *generationTask() const { return m_generationTask; }

    ConversationListModel *conversationList() const { return m_conversationList; }
    MessageListModel *messageList() const { return m_messageList; }
    LocalModelListModel *modelList() const { return m_modelList; }
    DownloadListModel *downloadList() const { return m_downloadList; }

    void setOnStatusChange(std::function<void()> callback) { m_onStatusChange = std::move(callback); }
    void setFileChooser(std::shared_ptr<FileChooser> chooser) { m_fileChooser = std::move(chooser); }

    // --- engine process and client ----------------------------------------------
    Q_INVOKABLE void start();
    Q_INVOKABLE void shutdown();
    // A JSON call to the engine; done runs once, on the main thread, with the body of
    // a 2xx reply or the failure. Returns the reply in flight (to abort it), or null
    // when the call failed before reaching the network.
    QNetworkReply *request(const QString &path, const std::optional<QJsonObject> &body,
                           std::function<void(const EngineReply &)> done);
    // Fetches and applies the engine status; done gets whether it was applied.
    QNetworkReply *refresh(std::function<void(bool)> done = {});
    // Stops a call of request() on behalf of its caller: done then gets a cancellation,
    // never the time-out that the network layer would report in the same way.
    static void cancelRequest(QNetworkReply *reply);

    // --- chat --------------------------------------------------------------------
    Q_INVOKABLE void send();
    Q_INVOKABLE void stop();
    void updateAssistant(const QUuid &id, const QString &text);
    Q_INVOKABLE void newChat();
    Q_INVOKABLE void save();
    Q_INVOKABLE void attachImage();
    Q_INVOKABLE void exportChat();
    // The export text of the selected conversation.
    QString exportText() const;

    // --- model library -------------------------------------------------------------
    Q_INVOKABLE void load(const QString &name);
    Q_INVOKABLE void unload();
    Q_INVOKABLE void importModels();
    Q_INVOKABLE void download(const QString &link);
    Q_INVOKABLE void revealModels();

    // Tests point the store at a stand-in engine; the app always uses the one beside it.
    static void setEngineLocationForTesting(const QString &path);
    // Tests talk to a stand-in server without launching a process.
    void connectForTesting(const QUrl &baseURL);
    // Tests shorten the time a call or a chat reply may stall before it fails.
    void setTimeoutsForTesting(int requestMilliseconds, int chatMilliseconds);
    static QString engineLocation();

signals:
    void stateChanged();
    void readyChanged();
    void activityChanged();
    void errorChanged();
    void loadingChanged();
    void generatingChanged();
    void promptChanged();
    void attachmentChanged();
    void conversationsChanged();
    void selectedIDChanged();
    void showLibraryChanged();
    void temperatureChanged();
    void tokenLimitChanged();
    void canSendChanged();

private:
    friend class EnginePoller;
    friend class ChatExchange;

    // Every change to conversations goes through these, so the list views follow.
    void insertConversation(int index, const Conversation &conversation);
    void setConversationTitle(int index, const QString &title);
    void appendMessage(int conversationIndex, const ChatMessage &message);
    void setMessageText(int conversationIndex, int messageIndex, const QString &text);

    void followCanSend();
    void handleProcessFinished(QProcess *process);
    void runStatusChange();

    std::optional<EngineState> m_state;
    bool m_ready = false;
    QString m_activity = QStringLiteral("Starting local engine\u2026");
    std::optional<QString> m_error;
    bool m_loading = false;
    bool m_generating = false;
    QString m_prompt;
    std::optional<QString> m_attachment;
    QList<Conversation> m_conversations;
    std::optional<QUuid> m_selectedID;
    bool m_showLibrary = false;
    double m_temperature = 0.7;
    int m_tokenLimit = 512;
    bool m_canSend = false;

    QProcess *m_process = nullptr;
    QPointer<CancellableTask> m_pollTask;
    QPointer<CancellableTask> m_generationTask;
    std::optional<QUrl> m_baseURL;
    // How long a call may go without any bytes moving before it fails as timed out.
    int m_requestTimeoutMilliseconds = 180 * 1000;
    int m_chatTimeoutMilliseconds = 600 * 1000;
    QString m_directory;
    QString m_dataFolder;
    QString m_historyFile;
    std::function<void()> m_onStatusChange;
    std::shared_ptr<FileChooser> m_fileChooser;

    QNetworkAccessManager *m_network = nullptr;
    ConversationListModel *m_conversationList = nullptr;
    MessageListModel *m_messageList = nullptr;
    LocalModelListModel *m_modelList = nullptr;
    DownloadListModel *m_downloadList = nullptr;
};
