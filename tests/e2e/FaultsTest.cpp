#include "BuiltEngine.h"
#include "FakeEngine.h"
#include "LoopbackHub.h"
#include "TestHome.h"
#include "TestModels.h"
#include "chat/MessageListModel.h"
#include "engine/EngineStore.h"
#include "model/HistoryFile.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QtTest>

#include <csignal>

// What users and machines do to the app: engines that die mid-reply or mid-download,
// corrupt models, and an app killed while it saves.
class FaultsTest : public QObject {
    Q_OBJECT

private:
    // Kills the store's engine as a crash would; false when it has none.
    static bool kill(EngineStore &store)
    {
        return store.process() && ::kill(static_cast<pid_t>(store.process()->processId()), SIGKILL) == 0;
    }

    static bool hasModel(const EngineStore &store, const QString &name, qint64 size)
    {
        if (!store.state())
            return false;
        for (const LocalModel &model : store.state()->models) {
            if (model.name == name && model.size == size)
                return true;
        }
        return false;
    }

private slots:
    void initTestCase() { QVERIFY2(BuiltEngine::use(), "vorn-engine is not built next to the app"); }

    void engineKilledDuringAReply()
    {
        TestHome home;
        QVERIFY(TestModels::linkInto(home.modelsFolder(), QStringLiteral("stories260K.gguf")));
        EngineStore store;
        store.start();
        QTRY_VERIFY_WITH_TIMEOUT(store.ready(), 15000);
        store.load(QStringLiteral("stories260K.gguf"));
        QTRY_VERIFY_WITH_TIMEOUT(!store.loading(), 60000);
        QVERIFY(store.hasLoadedModel());

        // The engine dies as soon as the first words are on screen.
        bool killed = false;
        connect(store.messageList(), &MessageListModel::lastTextChanged, this, [&] {
            if (!killed && store.generating() && !store.messageList()->lastText().isEmpty())
                killed = kill(store);
        });
        store.setTokenLimit(2048);
        store.setPrompt(QStringLiteral("Once upon a time"));
        store.send();
        QTRY_VERIFY_WITH_TIMEOUT(!store.generating(), 30000);
        QVERIFY(killed);
        QTRY_VERIFY_WITH_TIMEOUT(!store.ready(), 5000);
        QCOMPARE(*store.error(), QStringLiteral("The local engine stopped (9). Relaunch Vorn to reconnect."));
        QCOMPARE(store.activity(), QStringLiteral("Engine stopped"));
        const QString partial = store.messages().last().text;
        QVERIFY(!partial.isEmpty());
        QVERIFY(partial != QStringLiteral("The request did not complete."));
        const auto saved = HistoryFile::load(home.historyFile());
        QVERIFY(saved);
        QCOMPARE(saved->first().messages.size(), 2);
        QCOMPARE(saved->first().messages.last().text, partial);
        store.shutdown();
    }

    void corruptModelGivesAClearError()
    {
        TestHome home;
        QDir().mkpath(home.modelsFolder());
        QFile broken(QDir(home.modelsFolder()).filePath(QStringLiteral("broken.gguf")));
        QVERIFY(broken.open(QIODevice::WriteOnly));
        broken.write(QByteArray("GGUF") + QByteArray(4096, '\xff'));
        broken.close();
        QVERIFY(TestModels::linkInto(home.modelsFolder(), QStringLiteral("stories260K.gguf")));
        EngineStore store;
        store.start();
        QTRY_VERIFY_WITH_TIMEOUT(store.ready(), 15000);
        QCOMPARE(store.state()->models.size(), 2);

        store.load(QStringLiteral("broken.gguf"));
        QTRY_VERIFY_WITH_TIMEOUT(!store.loading(), 60000);
        QVERIFY(store.error());
        QVERIFY(!store.error()->isEmpty());
        QVERIFY(store.error() != QStringLiteral("The engine could not complete this request."));
        QVERIFY(!store.hasLoadedModel());
        // The engine is still there and still works.
        bool applied = false;
        store.refresh([&](bool ok) { applied = ok; });
        QTRY_VERIFY(applied);
        QCOMPARE(store.state()->models.size(), 2);
        store.load(QStringLiteral("stories260K.gguf"));
        QTRY_VERIFY_WITH_TIMEOUT(!store.loading(), 60000);
        QVERIFY(store.hasLoadedModel());
        store.shutdown();
    }

    void downloadResumesAfterTheEngineIsKilled()
    {
        TestHome home;
        const QByteArray contents = TestModels::contents(QStringLiteral("stories260K.gguf"));
        QVERIFY(!contents.isEmpty());
        LoopbackHub hub("/test/tiny/resolve/main/tiny-stories.gguf", contents, 8 * 1024, 40);
        QVERIFY(hub.listening());
        const QString link = hub.link();
        const QString partFile = QDir(home.modelsFolder()).filePath(QStringLiteral("tiny-stories.gguf.part"));

        qint64 keptBytes = 0;
        {
            EngineStore store;
            store.start();
            QTRY_VERIFY_WITH_TIMEOUT(store.ready(), 15000);
            store.download(link);
            QTRY_VERIFY_WITH_TIMEOUT(
                store.state()->downloads.size() == 1 && store.state()->downloads.first().bytes > 300 * 1024, 20000);
            QCOMPARE(store.state()->downloads.first().name, QStringLiteral("tiny-stories.gguf"));
            QVERIFY(kill(store));
            QTRY_VERIFY_WITH_TIMEOUT(!store.ready(), 5000);
            keptBytes = QFileInfo(partFile).size();
            QVERIFY(keptBytes > 0);
            QVERIFY(keptBytes < contents.size());
            QVERIFY(!QFileInfo::exists(QDir(home.modelsFolder()).filePath(QStringLiteral("tiny-stories.gguf"))));
            store.shutdown();
        }

        hub.server().clearRequests();
        EngineStore store;
        store.start();
        QTRY_VERIFY_WITH_TIMEOUT(store.ready(), 15000);
        store.download(link);
        QTRY_VERIFY_WITH_TIMEOUT(hasModel(store, QStringLiteral("tiny-stories.gguf"), contents.size()), 30000);
        QVERIFY(!QFileInfo::exists(partFile));
        const auto requests = hub.requests();
        QVERIFY(!requests.isEmpty());
        const QByteArray range = requests.first().header("Range");
        QVERIFY2(range.startsWith("bytes=") && range.endsWith('-'), range.constData());
        const qint64 resumedFrom = range.mid(6, range.size() - 7).toLongLong();
        QVERIFY(resumedFrom > 0);
        QVERIFY(resumedFrom <= keptBytes);
        QFile downloaded(QDir(home.modelsFolder()).filePath(QStringLiteral("tiny-stories.gguf")));
        QVERIFY(downloaded.open(QIODevice::ReadOnly));
        QVERIFY(downloaded.readAll() == contents);
        store.shutdown();
    }

    void appKilledWhileSavingLeavesAReadableHistory()
    {
        TestHome home;
        const QString writer = QDir(QCoreApplication::applicationDirPath()).filePath(QStringLiteral("history_writer"));
        QVERIFY(QFileInfo(writer).isExecutable());
        const QString file = home.historyFile();
        HistoryFile::prepareFolder(home.dataFolder());
        for (int round = 0; round < 15; ++round) {
            QProcess process;
            process.start(writer, {file});
            QVERIFY(process.waitForStarted());
            QVERIFY(process.waitForReadyRead(10000)); // it says when the first save is done
            QTest::qWait(QRandomGenerator::global()->bounded(5, 120));
            ::kill(static_cast<pid_t>(process.processId()), SIGKILL);
            QVERIFY(process.waitForFinished(5000));
            const auto history = HistoryFile::load(file);
            QVERIFY2(history.has_value(), "the history file is broken after a kill");
            QVERIFY(history->size() == 300 || history->size() == 301);
        }
        const QStringList leftovers = QDir(home.dataFolder()).entryList(QDir::Files | QDir::Hidden);
        QVERIFY2(leftovers.size() <= 3, qPrintable(leftovers.join(", ")));
    }
};

QTEST_GUILESS_MAIN(FaultsTest)
#include "FaultsTest.moc"
