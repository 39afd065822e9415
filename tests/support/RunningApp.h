#pragma once

#include <QByteArray>
#include <QList>
#include <QProcess>
#include <QString>

// Processes seen through /proc.
namespace ProcessTree {

QList<qint64> childrenOf(qint64 parent);
// The path of the program a process runs.
QString executableOf(qint64 pid);
// No such process, or one that has ended and waits to be reaped.
bool gone(qint64 pid);

} // namespace ProcessTree

// The real app as a user starts it: a process of its own, offscreen, in the home of the
// newest TestHome alive (whose folders this process's environment names), with its
// report lines (VORN_STARTUP_REPORT) collected from stderr as events are processed.
class RunningApp {
public:
    // extraEnvironment: variables set for this start alone.
    explicit RunningApp(const QString &program, const QProcessEnvironment &extraEnvironment = {});
    ~RunningApp();

    QProcess &process() { return m_process; }
    const QByteArray &report() const { return m_report; }
    // The engine has answered its first status call.
    bool engineReady() const { return m_report.contains("activity: Ready on this"); }
    // The running vorn-engine processes the app started.
    QList<qint64> engines() const;
    // Sends the signal, then waits for the app to end normally with status 0.
    bool quitWith(int signalNumber, int timeoutMs = 15000);

private:
    QProcess m_process;
    QByteArray m_report;
};
