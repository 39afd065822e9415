// Launching the engine, noticing its end, and stopping it at quit.
#include "EngineStore.h"

#include "EnginePoller.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QTimer>

namespace {

QString missingEngineMessage()
{
    return QStringLiteral("The bundled Vorn engine is missing. Please reinstall the app.");
}

} // namespace

void EngineStore::start()
{
    if (m_process)
        return;

    const QString engine = engineLocation();
    const QFileInfo engineFile(engine);
    if (engine.isEmpty() || !engineFile.isFile() || !engineFile.isExecutable()) {
        setError(missingEngineMessage());
        return;
    }

    QDir().mkpath(m_directory);

    const int port = static_cast<int>(QRandomGenerator::system()->bounded(20000, 49001));
    m_baseURL = QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port));

    auto *process = new QProcess(this);
    process->setProgram(engine);
    process->setArguments({QStringLiteral("app"), QStringLiteral("--port"), QString::number(port),
                           QStringLiteral("--models-dir"), m_directory, QStringLiteral("--no-open")});
    process->setStandardOutputFile(QProcess::nullDevice());
    process->setStandardErrorFile(QProcess::nullDevice());
    // The notice is handled as its own step on the main thread, never inside the signal.
    connect(process, &QProcess::finished, this, [this, process] { handleProcessFinished(process); },
            Qt::QueuedConnection);

    process->start();
    if (!process->waitForStarted()) {
        setError(process->errorString());
        setActivity(QStringLiteral("Could not start engine"));
        process->disconnect(this);
        process->deleteLater();
        return;
    }
    m_process = process;

    auto *poller = new EnginePoller(this);
    m_pollTask = poller;
    QTimer::singleShot(0, poller, &EnginePoller::begin);
}

void EngineStore::handleProcessFinished(QProcess *process)
{
    // A reply streaming from the engine breaks with it and shows its own error; the
    // notice waits for that, so the last word is the engine's end, which says more.
    if (m_process && m_generationTask && !m_generationTask->isFinished()) {
        connect(m_generationTask, &CancellableTask::finished, this,
                [this, process] { handleProcessFinished(process); }, Qt::QueuedConnection);
        return;
    }
    setReady(false);
    if (m_process) {
        setError(QStringLiteral("The local engine stopped (") + QString::number(process->exitCode())
                 + QStringLiteral("). Relaunch Vorn to reconnect."));
        setActivity(QStringLiteral("Engine stopped"));
    }
    if (process != m_process)
        process->deleteLater();
    runStatusChange();
}

void EngineStore::shutdown()
{
    if (m_generationTask)
        m_generationTask->cancel();
    if (m_pollTask)
        m_pollTask->cancel();
    // Clearing the process first is what keeps its end from being reported as a failure.
    QProcess *process = m_process;
    m_process = nullptr;
    if (process)
        process->terminate();
    save();
}
