#include "EngineConnection.h"

#include "EnginePoller.h"
#include "model/PlatformWords.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QNetworkReply>
#include <QProcess>
#include <QRandomGenerator>
#include <QTimer>

namespace {

QString &engineLocationOverride()
{
    static QString location;
    return location;
}

} // namespace

EngineConnection::EngineConnection(const QString &modelsFolder, QObject *parent)
    : QObject(parent), m_client(new EngineClient(this)), m_modelsFolder(modelsFolder)
{
}

EngineConnection::~EngineConnection()
{
    if (m_pollTask)
        m_pollTask->cancel();
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

// --- status ----------------------------------------------------------------------------

void EngineConnection::setState(const std::optional<EngineState> &state)
{
    m_state = state;
    emit stateChanged();
}

void EngineConnection::setReady(bool ready)
{
    if (m_ready == ready)
        return;
    m_ready = ready;
    emit readyChanged();
}

void EngineConnection::setActivity(const QString &activity)
{
    if (m_activity == activity)
        return;
    m_activity = activity;
    emit activityChanged();
}

bool EngineConnection::hasLoadedModel() const
{
    return m_state && m_state->loaded && !m_state->loaded->isEmpty();
}

QString EngineConnection::loadedName() const
{
    if (!hasLoadedModel())
        return QStringLiteral("No model loaded");
    QString name = *m_state->loaded;
    name.remove(QStringLiteral(".gguf"));
    return name;
}

QNetworkReply *EngineConnection::refresh(std::function<void(bool)> done)
{
    const auto apply = [this, done = std::move(done)](const EngineReply &reply) {
        std::optional<EngineState> decoded;
        if (reply.ok())
            decoded = EngineState::decode(reply.body);
        if (!decoded) {
            if (done)
                done(false);
            return;
        }
        setState(decoded);
        setReady(true);
        if (!m_busy || !m_busy())
            setActivity(hasLoadedModel() ? QStringLiteral("Model ready") : PlatformWords::readyActivity());
        emit statusChanged();
        if (done)
            done(true);
    };
    return m_client->request(QStringLiteral("api/state"), std::nullopt, apply);
}

// --- process -----------------------------------------------------------------------------

void EngineConnection::setEngineLocationForTesting(const QString &path)
{
    engineLocationOverride() = path;
}

QString EngineConnection::engineLocation()
{
    if (!engineLocationOverride().isEmpty())
        return engineLocationOverride();
    return engineLocationFor(QCoreApplication::applicationDirPath());
}

QString EngineConnection::engineLocationFor(const QString &applicationFolder)
{
    if (applicationFolder.isEmpty())
        return {};
#if defined(Q_OS_WIN)
    const QString name = QStringLiteral("vorn-engine.exe");
#else
    const QString name = QStringLiteral("vorn-engine");
#endif
    const QString beside = QDir(applicationFolder).filePath(name);
    if (QFileInfo::exists(beside))
        return beside;
    const QString installed = QDir::cleanPath(
        QDir(applicationFolder).filePath(QStringLiteral(VORN_INSTALLED_ENGINE_FOLDER "/") + name));
    return QFileInfo::exists(installed) ? installed : beside;
}

void EngineConnection::start()
{
    if (m_process)
        return;

    const QString engine = engineLocation();
    const QFileInfo engineFile(engine);
    if (engine.isEmpty() || !engineFile.isFile() || !engineFile.isExecutable()) {
        emit errorRaised(QStringLiteral("The bundled Vorn engine is missing. Please reinstall the app."));
        return;
    }

    QDir().mkpath(m_modelsFolder);

    const int port = static_cast<int>(QRandomGenerator::system()->bounded(20000, 49001));
    m_client->setBaseURL(QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port)));

    auto *process = new QProcess(this);
    process->setProgram(engine);
    process->setArguments({QStringLiteral("app"), QStringLiteral("--port"), QString::number(port),
                           QStringLiteral("--models-dir"), m_modelsFolder, QStringLiteral("--no-open")});
    process->setStandardOutputFile(QProcess::nullDevice());
    process->setStandardErrorFile(QProcess::nullDevice());
    // The notice is handled as its own step on the main thread, never inside the signal.
    connect(
        process, &QProcess::finished, this, [this, process] { handleProcessFinished(process); }, Qt::QueuedConnection);

    process->start();
    if (!process->waitForStarted()) {
        emit errorRaised(process->errorString());
        setActivity(QStringLiteral("Could not start engine"));
        process->disconnect(this);
        process->deleteLater();
        return;
    }
    m_process = process;

    auto *poller = new EnginePoller(this);
    connect(poller, &EnginePoller::startupFailed, this, [this] {
        emit errorRaised(QStringLiteral("The local engine did not respond. Relaunch Vorn to try again."));
    });
    m_pollTask = poller;
    QTimer::singleShot(0, poller, &EnginePoller::begin);
}

void EngineConnection::handleProcessFinished(QProcess *process)
{
    // A reply streaming from the engine breaks with it and shows its own error; the
    // notice waits for that, so the last word is the engine's end, which says more.
    CancellableTask *reply = m_replyInFlight ? m_replyInFlight() : nullptr;
    if (m_process && reply && !reply->isFinished()) {
        connect(
            reply, &CancellableTask::finished, this, [this, process] { handleProcessFinished(process); },
            Qt::QueuedConnection);
        return;
    }
    setReady(false);
    if (m_process) {
        emit errorRaised(QStringLiteral("The local engine stopped (") + QString::number(process->exitCode())
                         + QStringLiteral("). Relaunch Vorn to reconnect."));
        setActivity(QStringLiteral("Engine stopped"));
    }
    if (process != m_process)
        process->deleteLater();
    emit statusChanged();
}

void EngineConnection::shutdown()
{
    if (m_pollTask)
        m_pollTask->cancel();
    // Clearing the process first is what keeps its end from being reported as a failure.
    QProcess *process = m_process;
    m_process = nullptr;
    if (process)
        process->terminate();
}
