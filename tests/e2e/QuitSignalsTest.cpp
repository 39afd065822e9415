// The real app process, quit by the signals a logout, `kill` or a closed terminal
// send: each one stops the engine, saves the history and ends the app normally, as
// "Quit Vorn" does.
#include "BuiltEngine.h"
#include "RunningApp.h"
#include "TestHome.h"
#include "model/HistoryFile.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QtTest>

#include <csignal>

namespace {

constexpr int engineStartMs = 60000;
constexpr int quitMs = 15000;

// The history the app finds: written by hand, with lower-case ids and line breaks,
// so that the app's own save (compact, upper-case ids) is told from it.
const QByteArray seededHistory = R"([
  {"id": "0f8fad5b-d9cb-469f-a165-70867728950e", "title": "Kept",
   "messages": [{"id": "7c9e6679-7425-40de-944b-e07fc1f90ae7", "role": "user", "text": "Hello"}]}
]
)";

} // namespace

class QuitSignalsTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY2(BuiltEngine::use(), "vorn-engine is not built next to the app");
        QVERIFY2(QFileInfo(qEnvironmentVariable("VORN_APP_PATH")).isExecutable(), "the vorn app is not built");
    }

    void quitsLikeQuitVorn_data()
    {
        QTest::addColumn<int>("signalNumber");
        QTest::newRow("SIGTERM") << int(SIGTERM);
        QTest::newRow("SIGINT") << int(SIGINT);
        QTest::newRow("SIGHUP") << int(SIGHUP);
    }

    void quitsLikeQuitVorn()
    {
        QFETCH(int, signalNumber);
        TestHome home;
        HistoryFile::prepareFolder(home.dataFolder());
        {
            QFile history(home.historyFile());
            QVERIFY(history.open(QIODevice::WriteOnly));
            history.write(seededHistory);
        }

        RunningApp app(qEnvironmentVariable("VORN_APP_PATH"));
        QVERIFY(app.process().waitForStarted());

        // The engine is up and answering.
        QTRY_VERIFY_WITH_TIMEOUT(app.engineReady(), engineStartMs);
        const QList<qint64> engines = app.engines();
        QVERIFY2(engines.size() == 1, app.report().constData());
        QCOMPARE(app.process().state(), QProcess::Running);

        QVERIFY(app.quitWith(signalNumber, quitMs));
        QTRY_VERIFY_WITH_TIMEOUT(ProcessTree::gone(engines.first()), 5000);

        // Saved on the way out, in the app's own form.
        QFile saved(home.historyFile());
        QVERIFY(saved.open(QIODevice::ReadOnly));
        const QByteArray bytes = saved.readAll();
        QVERIFY2(bytes.startsWith(R"([{"id":"0F8FAD5B-D9CB-469F-A165-70867728950E")"), bytes.constData());
        const auto history = HistoryFile::decode(bytes);
        QVERIFY(history);
        QCOMPARE(history->size(), 1);
        QCOMPARE(history->first().title, QStringLiteral("Kept"));
        QCOMPARE(history->first().messages.first().text, QStringLiteral("Hello"));
    }
};

QTEST_GUILESS_MAIN(QuitSignalsTest)
#include "QuitSignalsTest.moc"
