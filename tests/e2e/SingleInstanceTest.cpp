// Two real app processes over one history folder: the second start shows the running
// window and ends, with no second engine; a start over another folder runs on its
// own, and a folder whose app was killed is free again.
#include "BuiltEngine.h"
#include "RunningApp.h"
#include "TestHome.h"

#include <QProcess>
#include <QtTest>

#include <csignal>

namespace {

constexpr int engineStartMs = 60000;

QString appPath()
{
    return qEnvironmentVariable("VORN_APP_PATH");
}

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
        RunningApp first(appPath());
        QVERIFY(first.process().waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(first.engineReady(), engineStartMs);
        QTRY_COMPARE_WITH_TIMEOUT(first.engines().size(), 1, 5000);
        QVERIFY(!first.report().contains("window_shown_for_later_start"));

        for (int start = 1; start <= 4; ++start) {
            // The third start brings the desktop's activation token, which the running
            // app needs to raise its window on Wayland; the fourth one that is no token.
            QProcessEnvironment token;
            if (start == 3)
                token.insert(QStringLiteral("XDG_ACTIVATION_TOKEN"), QStringLiteral("launcher-token_42"));
            if (start == 4)
                token.insert(QStringLiteral("XDG_ACTIVATION_TOKEN"), QStringLiteral("two words"));
            RunningApp second(appPath(), token);
            QVERIFY(second.process().waitForStarted());
            QVERIFY(second.process().waitForFinished(10000));
            QCOMPARE(second.process().exitStatus(), QProcess::NormalExit);
            QCOMPARE(second.process().exitCode(), 0);
            // It never drew a window of its own.
            QVERIFY2(!second.report().contains("first_frame_clock_ns"), second.report().constData());
            // The running app was asked, and showed its window, once per later start.
            QTRY_COMPARE_WITH_TIMEOUT(first.report().count("window_shown_for_later_start: "), start, 5000);
        }
        QCOMPARE(first.report().count("window_shown_for_later_start: yes"), 3);
        QVERIFY(first.report().contains("window_shown_for_later_start: launcher-token_42\n"));

        // Still one app with one engine.
        QCOMPARE(first.process().state(), QProcess::Running);
        QCOMPARE(first.engines().size(), 1);
        QVERIFY(first.quitWith(SIGTERM));
    }

    void anotherHistoryFolderGetsItsOwnApp()
    {
        TestHome firstHome;
        RunningApp first(appPath());
        QVERIFY(first.process().waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(first.engineReady(), engineStartMs);
        {
            TestHome otherHome;
            RunningApp other(appPath());
            QVERIFY(other.process().waitForStarted());
            QTRY_VERIFY_WITH_TIMEOUT(other.engineReady(), engineStartMs);
            QCOMPARE(other.engines().size(), 1);
            QVERIFY(!first.report().contains("window_shown_for_later_start"));
            QVERIFY(other.quitWith(SIGTERM));
        }
        QVERIFY(first.quitWith(SIGTERM));
    }

    void aKilledAppLeavesItsFolderFree()
    {
        TestHome home;
        {
            RunningApp killed(appPath());
            QVERIFY(killed.process().waitForStarted());
            QTRY_VERIFY_WITH_TIMEOUT(killed.report().contains("first_frame_clock_ns"), engineStartMs);
            killed.process().kill();
            QVERIFY(killed.process().waitForFinished(5000));
        }
        // Its lock and socket are left behind; the next start takes them over.
        RunningApp next(appPath());
        QVERIFY(next.process().waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(next.engineReady(), engineStartMs);
        QVERIFY(next.report().contains("first_frame_clock_ns"));
        QVERIFY(next.quitWith(SIGTERM));
    }
};

QTEST_GUILESS_MAIN(SingleInstanceTest)
#include "SingleInstanceTest.moc"
