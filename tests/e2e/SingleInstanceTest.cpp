// Two real app processes over one history folder: the second start shows the running
// window and ends, with no second engine; a start over another folder runs on its
// own, and a folder whose app was killed is free again.
#include "BuiltEngine.h"
#include "TestHome.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QtTest>

#include <csignal>
#include <memory>

namespace {

constexpr int engineStartMs = 20000;
constexpr int quitMs = 15000;

// The engines running under a process, from /proc.
QList<qint64> enginesUnder(qint64 parent)
{
    QList<qint64> engines;
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &entry : entries) {
        bool numeric = false;
        const qint64 pid = entry.toLongLong(&numeric);
        if (!numeric)
            continue;
        QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
        if (!stat.open(QIODevice::ReadOnly))
            continue;
        const QByteArray line = stat.readAll();
        const QByteArray name = line.mid(line.indexOf('(') + 1, line.lastIndexOf(')') - line.indexOf('(') - 1);
        const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
        if (name == "vorn-engine" && fields.size() > 1 && fields.at(1).toLongLong() == parent && fields.at(0) != "Z")
            engines.append(pid);
    }
    return engines;
}

// The real app, offscreen, printing its report lines on stderr. It runs in the home
// of the newest TestHome alive, whose folders this process's environment names.
class AppProcess {
public:
    AppProcess()
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("VORN_STARTUP_REPORT"), QStringLiteral("1"));
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        environment.insert(QStringLiteral("QT_QUICK_BACKEND"), QStringLiteral("software"));
        m_process.setProcessEnvironment(environment);
        m_process.setStandardOutputFile(QProcess::nullDevice());
        QObject::connect(&m_process, &QProcess::readyReadStandardError, &m_process,
                         [this] { m_report += m_process.readAllStandardError(); });
        m_process.start(qEnvironmentVariable("VORN_APP_PATH"), {});
    }
    ~AppProcess()
    {
        if (m_process.state() != QProcess::NotRunning) {
            m_process.kill();
            m_process.waitForFinished(5000);
        }
    }

    QProcess &process() { return m_process; }
    const QByteArray &report() const { return m_report; }
    bool engineReady() const { return m_report.contains("activity: Ready on this"); }

    bool quit()
    {
        if (::kill(static_cast<pid_t>(m_process.processId()), SIGTERM) != 0)
            return false;
        return m_process.waitForFinished(quitMs) && m_process.exitStatus() == QProcess::NormalExit
            && m_process.exitCode() == 0;
    }

private:
    QProcess m_process;
    QByteArray m_report;
};

} // namespace

class SingleInstanceTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY2(BuiltEngine::use(), "vorn-engine is not built next to the app");
        QVERIFY2(QFileInfo(qEnvironmentVariable("VORN_APP_PATH")).isExecutable(), "the vorn app is not built");
    }

    void aSecondStartShowsTheRunningWindowAndEnds()
    {
        TestHome home;
        AppProcess first;
        QVERIFY(first.process().waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(first.engineReady(), engineStartMs);
        QTRY_COMPARE_WITH_TIMEOUT(enginesUnder(first.process().processId()).size(), 1, 5000);
        QVERIFY(!first.report().contains("window_shown_for_later_start"));

        for (int start = 1; start <= 2; ++start) {
            AppProcess second;
            QVERIFY(second.process().waitForStarted());
            QVERIFY(second.process().waitForFinished(10000));
            QCOMPARE(second.process().exitStatus(), QProcess::NormalExit);
            QCOMPARE(second.process().exitCode(), 0);
            // It never drew a window of its own.
            QVERIFY2(!second.report().contains("first_frame_clock_ns"), second.report().constData());
            // The running app was asked, and showed its window, once per later start.
            QTRY_COMPARE_WITH_TIMEOUT(first.report().count("window_shown_for_later_start: yes"), start, 5000);
        }

        // Still one app with one engine.
        QCOMPARE(first.process().state(), QProcess::Running);
        QCOMPARE(enginesUnder(first.process().processId()).size(), 1);
        QVERIFY(first.quit());
    }

    void anotherHistoryFolderGetsItsOwnApp()
    {
        TestHome firstHome;
        AppProcess first;
        QVERIFY(first.process().waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(first.engineReady(), engineStartMs);
        {
            TestHome otherHome;
            AppProcess other;
            QVERIFY(other.process().waitForStarted());
            QTRY_VERIFY_WITH_TIMEOUT(other.engineReady(), engineStartMs);
            QCOMPARE(enginesUnder(other.process().processId()).size(), 1);
            QVERIFY(!first.report().contains("window_shown_for_later_start"));
            QVERIFY(other.quit());
        }
        QVERIFY(first.quit());
    }

    void aKilledAppLeavesItsFolderFree()
    {
        TestHome home;
        {
            AppProcess killed;
            QVERIFY(killed.process().waitForStarted());
            QTRY_VERIFY_WITH_TIMEOUT(killed.report().contains("first_frame_clock_ns"), engineStartMs);
            killed.process().kill();
            QVERIFY(killed.process().waitForFinished(5000));
        }
        // Its lock and socket are left behind; the next start takes them over.
        AppProcess next;
        QVERIFY(next.process().waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(next.engineReady(), engineStartMs);
        QVERIFY(next.report().contains("first_frame_clock_ns"));
        QVERIFY(next.quit());
    }
};

QTEST_GUILESS_MAIN(SingleInstanceTest)
#include "SingleInstanceTest.moc"
