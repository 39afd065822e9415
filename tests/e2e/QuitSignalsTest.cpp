// The real app process, quit by the signals a logout, `kill` or a closed terminal
// send: each one stops the engine, saves the history and ends the app normally, as
// "Quit Vorn" does.
#include "BuiltEngine.h"
#include "TestHome.h"
#include "model/HistoryFile.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QtTest>

#include <csignal>

namespace {

constexpr int engineStartMs = 20000;
constexpr int quitMs = 15000;

// The history the app finds: written by hand, with lower-case ids and line breaks,
// so that the app's own save (compact, upper-case ids) is told from it.
const QByteArray seededHistory = R"([
  {"id": "0f8fad5b-d9cb-469f-a165-70867728950e", "title": "Kept",
   "messages": [{"id": "7c9e6679-7425-40de-944b-e07fc1f90ae7", "role": "user", "text": "Hello"}]}
]
)";

// The children of a process, from /proc: pid, state letter and parent.
QList<qint64> childrenOf(qint64 parent)
{
    QList<qint64> children;
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
        // "pid (name) state ppid ..."; the name may hold anything, so read after its end.
        const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
        if (fields.size() > 1 && fields.at(1).toLongLong() == parent)
            children.append(pid);
    }
    return children;
}

// Gone: no such process, or one that has ended and waits to be reaped.
bool processGone(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return true;
    const QByteArray line = stat.readAll();
    const QByteArray state = line.mid(line.lastIndexOf(')') + 2, 1);
    return state == "Z" || state == "X";
}

QString executableOf(qint64 pid)
{
    return QFileInfo(QStringLiteral("/proc/%1/exe").arg(pid)).symLinkTarget();
}

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

        QProcess app;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("VORN_STARTUP_REPORT"), QStringLiteral("1"));
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        environment.insert(QStringLiteral("QT_QUICK_BACKEND"), QStringLiteral("software"));
        app.setProcessEnvironment(environment);
        app.setStandardOutputFile(QProcess::nullDevice());
        QByteArray report;
        connect(&app, &QProcess::readyReadStandardError, this, [&] { report += app.readAllStandardError(); });
        app.start(qEnvironmentVariable("VORN_APP_PATH"), {});
        QVERIFY(app.waitForStarted());

        // The engine is up and answering.
        QTRY_VERIFY_WITH_TIMEOUT(report.contains("activity: Ready on this"), engineStartMs);
        qint64 engine = 0;
        for (const qint64 child : childrenOf(app.processId())) {
            if (QFileInfo(executableOf(child)).fileName() == QStringLiteral("vorn-engine"))
                engine = child;
        }
        QVERIFY2(engine > 0, report.constData());
        QCOMPARE(app.state(), QProcess::Running);

        QCOMPARE(::kill(static_cast<pid_t>(app.processId()), signalNumber), 0);
        QVERIFY(app.waitForFinished(quitMs));
        QCOMPARE(app.exitStatus(), QProcess::NormalExit);
        QCOMPARE(app.exitCode(), 0);
        QTRY_VERIFY_WITH_TIMEOUT(processGone(engine), 5000);

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
