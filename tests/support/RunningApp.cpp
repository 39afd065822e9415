#include "RunningApp.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <csignal>

namespace ProcessTree {

namespace {

// "pid (name) state ppid ...": the name may hold anything, so the fields are read
// after its end.
QList<QByteArray> statusFields(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return {};
    const QByteArray line = stat.readAll();
    return line.mid(line.lastIndexOf(')') + 2).split(' ');
}

} // namespace

QList<qint64> childrenOf(qint64 parent)
{
    QList<qint64> children;
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &entry : entries) {
        bool numeric = false;
        const qint64 pid = entry.toLongLong(&numeric);
        if (!numeric)
            continue;
        const QList<QByteArray> fields = statusFields(pid);
        if (fields.size() > 1 && fields.at(1).toLongLong() == parent)
            children.append(pid);
    }
    return children;
}

QString executableOf(qint64 pid)
{
    return QFileInfo(QStringLiteral("/proc/%1/exe").arg(pid)).symLinkTarget();
}

bool gone(qint64 pid)
{
    const QList<QByteArray> fields = statusFields(pid);
    return fields.isEmpty() || fields.first() == "Z" || fields.first() == "X";
}

} // namespace ProcessTree

RunningApp::RunningApp(const QString &program, const QProcessEnvironment &extraEnvironment)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(extraEnvironment);
    environment.insert(QStringLiteral("VORN_STARTUP_REPORT"), QStringLiteral("1"));
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    environment.insert(QStringLiteral("QT_QUICK_BACKEND"), QStringLiteral("software"));
    m_process.setProcessEnvironment(environment);
    m_process.setStandardOutputFile(QProcess::nullDevice());
    QObject::connect(&m_process, &QProcess::readyReadStandardError, &m_process,
                     [this] { m_report += m_process.readAllStandardError(); });
    m_process.start(program, {});
}

RunningApp::~RunningApp()
{
    if (m_process.state() != QProcess::NotRunning) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

QList<qint64> RunningApp::engines() const
{
    QList<qint64> engines;
    for (const qint64 child : ProcessTree::childrenOf(m_process.processId())) {
        if (!ProcessTree::gone(child)
            && QFileInfo(ProcessTree::executableOf(child)).fileName() == QStringLiteral("vorn-engine"))
            engines.append(child);
    }
    return engines;
}

bool RunningApp::quitWith(int signalNumber, int timeoutMs)
{
    if (m_process.state() != QProcess::Running || ::kill(static_cast<pid_t>(m_process.processId()), signalNumber) != 0)
        return false;
    return m_process.waitForFinished(timeoutMs) && m_process.exitStatus() == QProcess::NormalExit
        && m_process.exitCode() == 0;
}
