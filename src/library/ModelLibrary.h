#pragma once

#include <QObject>
#include <QString>
#include <functional>

struct EngineReply;
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
    void errorRaised(const QString &message);
    void errorCleared();

private:
    // Shows a failed command's message, or fetches the status it changed.
    void refreshOrShow(const EngineReply &reply);

    EngineConnection &m_engine;
    LocalModelListModel *m_modelList;
    DownloadListModel *m_downloadList;
    bool m_loading = false;
    std::function<bool()> m_replying;
};
