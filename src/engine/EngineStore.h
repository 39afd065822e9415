#pragma once

#include "EngineFailure.h"
#include "FileChooser.h"
#include "model/Conversation.h"
#include "model/EngineState.h"

#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>
#include <QUrl>
#include <QUuid>
#include <QVariant>
#include <functional>
#include <memory>
#include <optional>

class CancellableTask;
class ChatSession;
class ConversationListModel;
class Conversations;
class DownloadListModel;
class EngineConnection;
class LocalModelListModel;
class MessageListModel;
class ModelLibrary;
class QNetworkReply;
class QProcess;

// The one model object of the app: the views and the shell read its properties and call
// its operations, and nothing else holds state. Its work is done by the collaborators it
// owns: the engine connection (process, client, status poll), the conversations with
// their list models, the chat session (draft, settings, the streaming reply) and the
// model library. Everything runs on the main thread.
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
    Q_PROPERTY(QString backend READ backend NOTIFY stateChanged)
    // The last reply's figures; a speed above zero is worth showing.
    Q_PROPERTY(bool hasThroughput READ hasThroughput NOTIFY stateChanged)
    Q_PROPERTY(double lastDecodeSpeed READ lastDecodeSpeed NOTIFY stateChanged)
    Q_PROPERTY(int lastCompletionTokens READ lastCompletionTokens NOTIFY stateChanged)
    // Whether the send/stop control acts, and whether models can be loaded or unloaded.
    Q_PROPERTY(bool canSend READ canSend NOTIFY canSendChanged)
    Q_PROPERTY(bool canChangeModel READ canChangeModel NOTIFY canChangeModelChanged)
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

    // The collaborators, for the shell and for tests that stand in for the engine.
    EngineConnection &engine() const { return *m_engine; }
    ChatSession &chat() const { return *m_chat; }
    ModelLibrary &library() const { return *m_library; }

    // --- published state -------------------------------------------------------------
    const std::optional<EngineState> &state() const;
    QVariant stateValue() const;
    bool hasState() const { return state().has_value(); }
    bool ready() const;
    QString activity() const;
    const std::optional<QString> &error() const { return m_error; }
    QVariant errorValue() const;
    bool hasError() const { return m_error.has_value(); }
    bool loading() const;
    bool generating() const;
    QString prompt() const;
    const std::optional<QString> &attachment() const;
    QVariant attachmentValue() const;
    bool hasAttachment() const { return attachment().has_value(); }
    const QList<Conversation> &conversations() const;
    const std::optional<QUuid> &selectedID() const;
    QString selectedIDText() const;
    bool showLibrary() const { return m_showLibrary; }
    double temperature() const;
    int tokenLimit() const;

    // What the views and the shell may set.
    void setError(const std::optional<QString> &error);
    void setErrorValue(const QVariant &error);
    Q_INVOKABLE void clearError() { setError(std::nullopt); }
    void setPrompt(const QString &prompt);
    void setAttachment(const std::optional<QString> &attachment);
    void setAttachmentValue(const QVariant &attachment);
    Q_INVOKABLE void clearAttachment() { setAttachment(std::nullopt); }
    void setSelectedID(const std::optional<QUuid> &id);
    void setSelectedIDText(const QString &id);
    void setShowLibrary(bool show);
    void setTemperature(double temperature);
    void setTokenLimit(int tokenLimit);

    // --- computed ----------------------------------------------------------------------
    bool hasLoadedModel() const;
    QString loadedName() const;
    bool vision() const;
    QString backend() const;
    bool hasThroughput() const { return lastDecodeSpeed() > 0; }
    double lastDecodeSpeed() const { return hasState() ? state()->last.decode_tps : 0; }
    int lastCompletionTokens() const { return hasState() ? static_cast<int>(state()->last.completion_tokens) : 0; }
    QList<ChatMessage> messages() const;
    bool canSend() const;
    bool canChangeModel() const;
    // Index of the selected conversation in conversations(), or -1.
    int selectedIndex() const;

    QString directory() const;
    QString dataFolder() const { return m_dataFolder; }
    QString historyFile() const;
    std::optional<QUrl> baseURL() const;
    QProcess *process() const;
    CancellableTask *pollTask() const;
    CancellableTask *generationTask() const;

    ConversationListModel *conversationList() const;
    MessageListModel *messageList() const;
    LocalModelListModel *modelList() const;
    DownloadListModel *downloadList() const;

    void setOnStatusChange(std::function<void()> callback) { m_onStatusChange = std::move(callback); }
    void setFileChooser(std::shared_ptr<FileChooser> chooser) { m_fileChooser = std::move(chooser); }

    // --- engine process and client ----------------------------------------------------
    Q_INVOKABLE void start();
    Q_INVOKABLE void shutdown();
    // A JSON call to the engine (EngineClient::request).
    QNetworkReply *request(const QString &path, const std::optional<QJsonObject> &body,
                           std::function<void(const EngineReply &)> done);
    // Fetches and applies the engine status; done gets whether it was applied.
    QNetworkReply *refresh(std::function<void(bool)> done = {});

    // --- chat --------------------------------------------------------------------------
    Q_INVOKABLE void send();
    Q_INVOKABLE void stop();
    // Stops while generating, sends otherwise: the send/stop control.
    Q_INVOKABLE void sendOrStop();
    void updateAssistant(const QUuid &id, const QString &text);
    Q_INVOKABLE void newChat();
    // A click on a conversation: ignored while a reply is generating.
    Q_INVOKABLE void selectConversation(const QString &id);
    Q_INVOKABLE void save();
    Q_INVOKABLE void attachImage();
    Q_INVOKABLE void exportChat();
    // The export text of the selected conversation.
    QString exportText() const;

    // --- model library -----------------------------------------------------------------
    Q_INVOKABLE void load(const QString &name);
    Q_INVOKABLE void unload();
    Q_INVOKABLE void importModels();
    Q_INVOKABLE void download(const QString &link);
    Q_INVOKABLE void revealModels();

signals:
    void stateChanged();
    void readyChanged();
    void activityChanged();
    void errorChanged();
    void loadingChanged();
    void generatingChanged();
    void promptChanged();
    void attachmentChanged();
    void selectedIDChanged();
    void showLibraryChanged();
    void temperatureChanged();
    void tokenLimitChanged();
    void canSendChanged();
    void canChangeModelChanged();

private:
    void connectCollaborators();

    std::optional<QString> m_error;
    bool m_showLibrary = false;
    QString m_dataFolder;
    std::function<void()> m_onStatusChange;
    std::shared_ptr<FileChooser> m_fileChooser;

    // Owned as children, in the order they are built: each may use those before it.
    EngineConnection *m_engine;
    Conversations *m_conversations;
    ModelLibrary *m_library;
    ChatSession *m_chat;
};
