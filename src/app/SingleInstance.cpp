#include "SingleInstance.h"

#include "model/HistoryFile.h"

#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QLocalServer>
#include <QLocalSocket>
#include <QThread>

#include <algorithm>

namespace {

const QByteArray showRequest = "show";
const QByteArray shownAnswer = "shown\n";
// A request is one short line: "show", then a space and a token when there is one.
constexpr qint64 longestRequest = 300;

// Tokens are opaque short printable words; anything else is not passed on.
bool plausibleToken(const QByteArray &token)
{
    if (token.isEmpty() || token.size() > 256)
        return false;
    return std::all_of(token.cbegin(), token.cend(), [](char character) { return character > ' ' && character < 127; });
}

QString lockPath(const QString &dataFolder)
{
    return QDir(dataFolder).filePath(QStringLiteral("instance.lock"));
}

} // namespace

SingleInstance::SingleInstance(const QString &dataFolder, QObject *parent)
    : QObject(parent), m_dataFolder(dataFolder), m_lock(lockPath(dataFolder))
{
    // The app holds the lock for as long as it runs; only a dead holder frees it.
    m_lock.setStaleLockTime(0);
}

SingleInstance::~SingleInstance() = default;

QString SingleInstance::serverName(const QString &dataFolder)
{
    const QByteArray folder = QDir::cleanPath(QFileInfo(dataFolder).absoluteFilePath()).toUtf8();
    const QString name = QStringLiteral("vorn-%1.socket")
                             .arg(QString::fromLatin1(
                                 QCryptographicHash::hash(folder, QCryptographicHash::Sha256).toHex().left(24)));
    // The runtime folder is the user's own (0700); in the shared temporary folder the
    // socket itself is made the user's only.
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtime.isEmpty() && QDir::isAbsolutePath(runtime) && QFileInfo(runtime).isDir())
        return QDir(runtime).filePath(name);
    return name;
}

bool SingleInstance::claim()
{
    HistoryFile::prepareFolder(m_dataFolder);
    if (!m_lock.tryLock(0)) {
        // A folder where no lock can be written at all (read-only, full) stops nobody:
        // the app then runs as it did before there was a lock.
        return m_lock.error() != QLockFile::LockFailedError;
    }
    const QString name = serverName(m_dataFolder);
    // Left over by an app that died: the lock says no one else is listening.
    QLocalServer::removeServer(name);
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!m_server->listen(name))
        qWarning("Vorn cannot listen for later starts on %s: %s", qPrintable(name),
                 qPrintable(m_server->errorString()));
    connect(m_server, &QLocalServer::newConnection, this, &SingleInstance::answer);
    return true;
}

void SingleInstance::answer()
{
    while (QLocalSocket *socket = m_server->nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        const auto read = [this, socket] {
            if (!socket->canReadLine()) {
                if (socket->bytesAvailable() > longestRequest)
                    socket->abort();
                return;
            }
            const QByteArray request = socket->readLine(longestRequest + 1).chopped(1);
            if (request == showRequest || request.startsWith(showRequest + ' ')) {
                const QByteArray token = request.mid(showRequest.size() + 1);
                emit activationRequested(plausibleToken(token) ? token : QByteArray());
                socket->write(shownAnswer);
                socket->flush();
            }
            socket->disconnectFromServer();
        };
        connect(socket, &QLocalSocket::readyRead, socket, read);
        read();
    }
}

bool SingleInstance::activateRunning(const QByteArray &activationToken, int timeoutMs)
{
    const QByteArray request = (plausibleToken(activationToken) ? showRequest + ' ' + activationToken : showRequest)
        + '\n';
    const QDeadlineTimer deadline(timeoutMs);
    const QString name = serverName(m_dataFolder);
    // The running app may still be on its way to listening: try until the deadline.
    while (!deadline.hasExpired()) {
        QLocalSocket socket;
        socket.connectToServer(name);
        if (socket.waitForConnected(static_cast<int>(qMax<qint64>(1, deadline.remainingTime())))) {
            socket.write(request);
            if (!socket.waitForBytesWritten(static_cast<int>(qMax<qint64>(1, deadline.remainingTime()))))
                return false;
            while (!socket.canReadLine() && socket.state() == QLocalSocket::ConnectedState
                   && socket.waitForReadyRead(static_cast<int>(qMax<qint64>(1, deadline.remainingTime())))) {
            }
            return socket.canReadLine() && socket.readLine(64) == shownAnswer;
        }
        QThread::msleep(50);
    }
    return false;
}
