#pragma once

#include <QObject>
#include <QString>
#include <functional>

struct EngineReply;
struct LocalModel;
class ContextChoiceListModel;
class DownloadListModel;
class EngineConnection;
class FileChooser;
class LocalModelListModel;

// The models folder as the library sheet shows it: the engine's model files and
// downloads, and the commands that change them (load, unload, import, download, show
// the folder).
class ModelLibrary : public QObject {
    Q_OBJECT
public:
    explicit ModelLibrary(EngineConnection &engine, QObject *parent = nullptr);

    LocalModelListModel *modelList() const { return m_modelList; }
    DownloadListModel *downloadList() const { return m_downloadList; }
    ContextChoiceListModel *contextChoices() const { return m_contextChoices; }

    // The context models are loaded with, in tokens; 0 for each model's maximum. Kept
    // in the settings across launches.
    int contextChoice() const { return m_contextChoice; }
    // A new choice reloads the loaded model with it. Refused (contextChoiceChanged
    // still tells, so a picker shows the choice that holds) for a size that is not
    // offered or that the loaded model was not trained for, and while a model cannot
    // change.
    void setContextChoice(int tokens);

    bool loading() const { return m_loading; }
    void setLoading(bool loading);
    // A reply in progress: models are neither loaded nor unloaded meanwhile.
    void setReplyCheck(std::function<bool()> replying) { m_replying = std::move(replying); }
    // Whether a model may be loaded or unloaded now.
    bool canChangeModel() const;

    void load(const QString &name);
    void unload();
    void importModels(FileChooser *chooser);
    void download(const QString &link);
    void revealModels();

signals:
    void loadingChanged();
    void contextChoiceChanged();
    void errorRaised(const QString &message);
    void errorCleared();

private:
    // Shows a failed command's message, or fetches the status it changed.
    void refreshOrShow(const EngineReply &reply);
    // A model's entry of the last status, and the loaded model's.
    const LocalModel *listedModel(const QString &name) const;
    const LocalModel *loadedModel() const;

    EngineConnection &m_engine;
    LocalModelListModel *m_modelList;
    DownloadListModel *m_downloadList;
    ContextChoiceListModel *m_contextChoices;
    int m_contextChoice;
    bool m_loading = false;
    std::function<bool()> m_replying;
};
