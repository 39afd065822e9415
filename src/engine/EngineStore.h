#pragma once

#include "EngineConnection.h"
#include "EngineFailure.h"
#include "FileChooser.h"
#include "chat/ChatSession.h"
#include "chat/ContextMeter.h"
#include "chat/ConversationExport.h"
#include "chat/Conversations.h"
#include "library/ModelLibrary.h"
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

class ContextChoiceListModel;
class ConversationListModel;
class DownloadListModel;
class LocalModelListModel;
class MessageListModel;
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
    Q_MOC_INCLUDE("library/ContextChoiceListModel.h")

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
    Q_PROPERTY(QString defaultSystemPrompt READ defaultSystemPrompt WRITE setDefaultSystemPrompt NOTIFY
                   defaultSystemPromptChanged)
    // The context models load with, in tokens; 0 for each model's maximum.
    Q_PROPERTY(int contextChoice READ contextChoice WRITE setContextChoice NOTIFY contextChoiceChanged)

    // Derived from the properties above.
    Q_PROPERTY(bool hasError READ hasError NOTIFY errorChanged)
    Q_PROPERTY(bool hasAttachment READ hasAttachment NOTIFY attachmentChanged)
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
    Q_PROPERTY(QString dataFolder READ dataFolder CONSTANT)
    // The selected conversation's system prompt as it is sent, and whether it is the
    // conversation's own rather than the default.
    Q_PROPERTY(QString systemPrompt READ systemPrompt NOTIFY systemPromptChanged)
    Q_PROPERTY(bool hasSystemOverride READ hasSystemOverride NOTIFY systemPromptChanged)
    // The conversation a reply is being written into; empty when none is.
    Q_PROPERTY(QString replyingID READ replyingIDText NOTIFY generatingChanged)
    Q_PROPERTY(bool canRegenerate READ canRegenerate NOTIFY canRegenerateChanged)
    // The composer holds a question being edited.
    Q_PROPERTY(bool editing READ editing NOTIFY editingChanged)
    // The deletion or edit that can still be taken back, and what the undo bar says.
    Q_PROPERTY(bool canUndo READ canUndo NOTIFY undoChanged)
    Q_PROPERTY(QString undoText READ undoText NOTIFY undoChanged)
    // The context picker's row for contextChoice.
    Q_PROPERTY(int contextChoiceIndex READ contextChoiceIndex NOTIFY contextChoiceChanged)
    // The footer's meter of the selected conversation's use of the context: shown with
    // a model and once counted; its level is "comfortable", "nearlyFull" (80 % and
    // more) or "overflowing" (earlier messages are left out).
    Q_PROPERTY(bool contextMeterShown READ contextMeterShown NOTIFY contextMeterChanged)
    Q_PROPERTY(QString contextMeterText READ contextMeterText NOTIFY contextMeterChanged)
    Q_PROPERTY(QString contextMeterLevel READ contextMeterLevel NOTIFY contextMeterChanged)
    // The earliest message of the selected conversation that the model saw in its last
    // reply, when earlier ones were left out; empty otherwise.
    Q_PROPERTY(QString contextStartID READ contextStartID NOTIFY contextMeterChanged)
    // Sending the draft would leave out earlier messages.
    Q_PROPERTY(bool draftBeyondContext READ draftBeyondContext NOTIFY contextMeterChanged)

    // List views of the same data, updated row by row.
    Q_PROPERTY(ConversationListModel *conversationList READ conversationList CONSTANT)
    Q_PROPERTY(MessageListModel *messageList READ messageList CONSTANT)
    Q_PROPERTY(LocalModelListModel *modelList READ modelList CONSTANT)
    Q_PROPERTY(DownloadListModel *downloadList READ downloadList CONSTANT)
    Q_PROPERTY(ContextChoiceListModel *contextChoices READ contextChoices CONSTANT)

public:
    explicit EngineStore(QObject *parent = nullptr);
    ~EngineStore() override;

    // The collaborators, for the shell and for tests that stand in for the engine.
    EngineConnection &engine() const { return *m_engine; }
    ChatSession &chat() const { return *m_chat; }
    ModelLibrary &library() const { return *m_library; }
    ContextMeter &contextMeter() const { return *m_contextMeter; }

    // --- published state -------------------------------------------------------------
    const std::optional<EngineState> &state() const { return m_engine->state(); }
    QVariant stateValue() const;
    bool hasState() const { return state().has_value(); }
    bool ready() const { return m_engine->ready(); }
    QString activity() const { return m_engine->activity(); }
    const std::optional<QString> &error() const { return m_error; }
    QVariant errorValue() const;
    bool hasError() const { return m_error.has_value(); }
    bool loading() const { return m_library->loading(); }
    bool generating() const { return m_chat->generating(); }
    QString prompt() const { return m_chat->prompt(); }
    const std::optional<QString> &attachment() const { return m_chat->attachment(); }
    QVariant attachmentValue() const;
    bool hasAttachment() const { return attachment().has_value(); }
    const QList<Conversation> &conversations() const { return m_conversations->all(); }
    const std::optional<QUuid> &selectedID() const { return m_conversations->selectedID(); }
    QString selectedIDText() const;
    bool showLibrary() const { return m_showLibrary; }
    double temperature() const { return m_chat->temperature(); }
    int tokenLimit() const { return m_chat->tokenLimit(); }
    QString defaultSystemPrompt() const { return m_chat->defaultSystemPrompt(); }
    int contextChoice() const { return m_library->contextChoice(); }

    // What the views and the shell may set.
    void setError(const std::optional<QString> &error);
    void setErrorValue(const QVariant &error);
    Q_INVOKABLE void clearError() { setError(std::nullopt); }
    void setPrompt(const QString &prompt) { m_chat->setPrompt(prompt); }
    void setAttachment(const std::optional<QString> &attachment) { m_chat->setAttachment(attachment); }
    void setAttachmentValue(const QVariant &attachment);
    Q_INVOKABLE void clearAttachment() { setAttachment(std::nullopt); }
    void setSelectedID(const std::optional<QUuid> &id) { m_conversations->select(id); }
    void setSelectedIDText(const QString &id);
    void setShowLibrary(bool show);
    void setTemperature(double temperature) { m_chat->setTemperature(temperature); }
    void setTokenLimit(int tokenLimit) { m_chat->setTokenLimit(tokenLimit); }
    void setDefaultSystemPrompt(const QString &text) { m_chat->setDefaultSystemPrompt(text); }
    void setContextChoice(int tokens) { m_library->setContextChoice(tokens); }
    // A pick in the context picker, by row.
    Q_INVOKABLE void chooseContext(int row);

    // --- computed ----------------------------------------------------------------------
    bool hasLoadedModel() const { return m_engine->hasLoadedModel(); }
    QString loadedName() const { return m_engine->loadedName(); }
    bool vision() const { return m_engine->vision(); }
    QString backend() const { return m_engine->backend(); }
    bool hasThroughput() const { return lastDecodeSpeed() > 0; }
    double lastDecodeSpeed() const { return hasState() ? state()->last.decode_tps : 0; }
    int lastCompletionTokens() const { return hasState() ? static_cast<int>(state()->last.completion_tokens) : 0; }
    QList<ChatMessage> messages() const { return m_conversations->messages(); }
    bool canSend() const { return m_chat->canSend(); }
    bool canChangeModel() const { return m_library->canChangeModel(); }
    bool canRegenerate() const { return m_chat->canRegenerate(); }
    bool editing() const { return m_chat->editing(); }
    QString systemPrompt() const;
    bool hasSystemOverride() const;
    QString replyingIDText() const;
    bool canUndo() const;
    QString undoText() const;
    int contextChoiceIndex() const;
    bool contextMeterShown() const { return m_contextMeter->shown(); }
    QString contextMeterText() const { return m_contextMeter->text(); }
    QString contextMeterLevel() const;
    QString contextStartID() const;
    bool draftBeyondContext() const { return m_contextMeter->draftBeyondContext(); }
    // Index of the selected conversation in conversations(), or -1.
    int selectedIndex() const { return m_conversations->selectedIndex(); }

    QString directory() const { return m_engine->modelsFolder(); }
    QString dataFolder() const { return m_dataFolder; }
    QString historyFile() const { return m_conversations->historyFile(); }
    std::optional<QUrl> baseURL() const { return m_engine->client().baseURL(); }
    QProcess *process() const { return m_engine->process(); }
    CancellableTask *pollTask() const { return m_engine->pollTask(); }
    CancellableTask *generationTask() const { return m_chat->generationTask(); }

    ConversationListModel *conversationList() const { return m_conversations->list(); }
    MessageListModel *messageList() const { return m_conversations->messageList(); }
    LocalModelListModel *modelList() const { return m_library->modelList(); }
    DownloadListModel *downloadList() const { return m_library->downloadList(); }
    ContextChoiceListModel *contextChoices() const { return m_library->contextChoices(); }

    void setOnStatusChange(std::function<void()> callback) { m_onStatusChange = std::move(callback); }
    void setFileChooser(std::shared_ptr<FileChooser> chooser) { m_fileChooser = std::move(chooser); }

    // --- engine process and client ----------------------------------------------------
    Q_INVOKABLE void start() { m_engine->start(); }
    Q_INVOKABLE void shutdown();
    // A JSON call to the engine (EngineClient::request).
    QNetworkReply *request(const QString &path, const std::optional<QJsonObject> &body,
                           std::function<void(const EngineReply &)> done)
    {
        return m_engine->client().request(path, body, std::move(done));
    }
    // Fetches and applies the engine status; done gets whether it was applied.
    QNetworkReply *refresh(std::function<void(bool)> done = {}) { return m_engine->refresh(std::move(done)); }

    // --- chat --------------------------------------------------------------------------
    Q_INVOKABLE void send() { m_chat->send(); }
    Q_INVOKABLE void stop() { m_chat->stop(); }
    // Stops while generating, sends otherwise: the send/stop control.
    Q_INVOKABLE void sendOrStop() { m_chat->sendOrStop(); }
    void updateAssistant(const QUuid &id, const QString &text) { m_conversations->updateAssistant(id, text); }
    Q_INVOKABLE void newChat() { m_chat->newChat(); }
    // A click on a conversation: ignored while a reply is generating.
    Q_INVOKABLE void selectConversation(const QString &id);
    Q_INVOKABLE void save() { m_conversations->save(); }
    Q_INVOKABLE void attachImage() { m_chat->attachImage(m_fileChooser.get()); }
    Q_INVOKABLE void exportChat();
    // The export text of the selected conversation, plain and as Markdown.
    QString exportText() const;
    QString exportMarkdown() const;
    // The text of the selected conversation's last reply, for copying; empty when it
    // has none.
    Q_INVOKABLE QString lastReplyText() const;
    Q_INVOKABLE void regenerate() { m_chat->regenerate(); }

    // --- managing conversations ---------------------------------------------------------
    // Each takes a conversation's id as the views know it (uuidText) and saves at once.
    Q_INVOKABLE void renameConversation(const QString &id, const QString &title);
    // Not while its reply is being written; the deletion can be taken back for a while.
    Q_INVOKABLE void deleteConversation(const QString &id);
    Q_INVOKABLE void setPinned(const QString &id, bool pinned);
    // The selected conversation's own system prompt, and back to the default.
    Q_INVOKABLE void setSystemOverride(const QString &text);
    Q_INVOKABLE void clearSystemOverride();
    Q_INVOKABLE void undo() { m_chat->undo(); }
    Q_INVOKABLE void dismissUndo();
    // How long a deletion or an edit can be taken back.
    void setUndoTimeout(int milliseconds);

    // --- editing a question -------------------------------------------------------------
    Q_INVOKABLE void beginEdit(const QString &messageId);
    Q_INVOKABLE void editLastQuestion() { m_chat->editLastQuestion(); }
    Q_INVOKABLE void cancelEdit() { m_chat->cancelEdit(); }

    // --- model library -----------------------------------------------------------------
    Q_INVOKABLE void load(const QString &name) { m_library->load(name); }
    Q_INVOKABLE void unload() { m_library->unload(); }
    Q_INVOKABLE void importModels() { m_library->importModels(m_fileChooser.get()); }
    Q_INVOKABLE void download(const QString &link) { m_library->download(link); }
    Q_INVOKABLE void revealModels() { m_library->revealModels(); }

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
    void defaultSystemPromptChanged();
    void systemPromptChanged();
    void canRegenerateChanged();
    void editingChanged();
    void undoChanged();
    void contextChoiceChanged();
    void contextMeterChanged();
    void canSendChanged();
    void canChangeModelChanged();

private:
    void connectCollaborators();
    // The selected conversation as the export writes it.
    ConversationExport::Content exported() const;

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
    ContextMeter *m_contextMeter;
};
