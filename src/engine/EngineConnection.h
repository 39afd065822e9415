#pragma once

#include "CancellableTask.h"
#include "EngineClient.h"
#include "model/EngineState.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <functional>
#include <optional>

class QProcess;

// The engine as the app sees it: the child process, the client that talks to it, the
// status poll, and what the last status said (state, ready, the activity line).
class EngineConnection : public QObject {
    Q_OBJECT
public:
    EngineConnection(const QString &modelsFolder, QObject *parent = nullptr);
    ~EngineConnection() override;

    EngineClient &client() { return *m_client; }
    const QString &modelsFolder() const { return m_modelsFolder; }
    QProcess *process() const { return m_process; }
    CancellableTask *pollTask() const { return m_pollTask; }

    const std::optional<EngineState> &state() const { return m_state; }
    bool ready() const { return m_ready; }
    const QString &activity() const { return m_activity; }
    void setState(const std::optional<EngineState> &state);
    void setReady(bool ready);
    void setActivity(const QString &activity);

    // Read from the last status.
    bool hasLoadedModel() const;
    QString loadedName() const;
    QString loadedFile() const { return m_state ? m_state->loaded.value_or(QString()) : QString(); }
    QString backend() const { return m_state ? m_state->backend.value_or(QString()) : QString(); }
    bool vision() const { return m_state && m_state->vision; }

    // A load or a reply in progress: the status leaves the activity line to them.
    void setBusyCheck(std::function<bool()> busy) { m_busy = std::move(busy); }
    // The reply streaming from the engine, if any: when the engine stops, the notice
    // waits for it.
    void setReplyInFlight(std::function<CancellableTask *()> reply) { m_replyInFlight = std::move(reply); }

    // Launches the engine on a random loopback port and starts the status poll; once.
    void start();
    // Stops the poll and asks the engine to quit, without waiting.
    void shutdown();
    // Fetches and applies the engine status; done gets whether it was applied.
    QNetworkReply *refresh(std::function<void(bool)> done = {});

    // Tests point the app at a stand-in engine; the app always uses its own.
    static void setEngineLocationForTesting(const QString &path);
    static QString engineLocation();
    // The engine of an app whose executable lives in applicationFolder: beside it (the
    // build folder), else in the installed layout's engine folder (libexec/vorn beside
    // bin). When neither holds one, the path beside the app.
    static QString engineLocationFor(const QString &applicationFolder);

signals:
    void stateChanged();
    void readyChanged();
    void activityChanged();
    // A change that the tray's status line shows: a status applied, the engine ended.
    void statusChanged();
    void errorRaised(const QString &message);

private:
    void handleProcessFinished(QProcess *process);

    EngineClient *m_client;
    QString m_modelsFolder;
    QProcess *m_process = nullptr;
    QPointer<CancellableTask> m_pollTask;
    std::optional<EngineState> m_state;
    bool m_ready = false;
    QString m_activity = QStringLiteral("Starting local engine\u2026");
    std::function<bool()> m_busy;
    std::function<CancellableTask *()> m_replyInFlight;
};
