#include "BuiltEngine.h"
#include "PlatformText.h"
#include "StoreTestCase.h"
#include "TestModels.h"
#include "model/HistoryFile.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>

#include <QtTest>
#include <csignal>

// The store driving the real engine: launch, status, load, a streamed reply, metrics,
// and the engine's death reported with its exit status.
class EngineEndToEndTest : public StoreTestCase {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY2(BuiltEngine::use(), "vorn-engine is not built next to the app");
        QVERIFY(QFileInfo::exists(TestModels::path(QStringLiteral("stories260K.gguf"))));
    }

    // Each test's store launches the real engine itself.
    void init() { build(FakeEngine::stateJson(), StoreFixture::Engine::None); }

    void chatWithTheTinyModel()
    {
        QVERIFY(TestModels::linkInto(home().modelsFolder(), QStringLiteral("stories260K.gguf")));
        store().start();
        QTRY_VERIFY_WITH_TIMEOUT(store().ready(), 60000);
        QVERIFY(!store().error());
        QCOMPARE(store().activity(), PlatformText::readyActivity());
        QCOMPARE(store().state()->models.size(), 1);
        QCOMPARE(store().state()->models.first().name, QStringLiteral("stories260K.gguf"));
        QCOMPARE(store().state()->models.first().size, 1185376);
        QVERIFY(!store().state()->models.first().projector);

        store().load(QStringLiteral("stories260K.gguf"));
        QVERIFY(store().loading());
        QTRY_VERIFY_WITH_TIMEOUT(!store().loading(), 60000);
        QVERIFY2(!store().error(), qPrintable(store().error().value_or(QString())));
        QVERIFY(store().hasLoadedModel());
        QCOMPARE(store().loadedName(), QStringLiteral("stories260K"));

        store().setTemperature(0);
        store().setTokenLimit(32);
        store().setPrompt(QStringLiteral("Once upon a time"));
        store().send();
        QVERIFY(store().generating());
        QTRY_VERIFY_WITH_TIMEOUT(!store().generating(), 60000);
        QVERIFY2(!store().error(), qPrintable(store().error().value_or(QString())));
        const QString reply = store().messages().last().text;
        QVERIFY(!reply.isEmpty());
        QVERIFY(reply != QStringLiteral("The request did not complete."));
        QTRY_VERIFY_WITH_TIMEOUT(store().state()->last.decode_tps > 0, 5000);
        QVERIFY(store().state()->last.completion_tokens > 0);
        QVERIFY(store().state()->last.completion_tokens <= 32);

        const auto saved = HistoryFile::load(home().historyFile());
        QVERIFY(saved);
        QCOMPARE(saved->first().messages.last().text, reply);

        // Greedy decoding gives the same reply to the same question.
        store().newChat();
        store().setPrompt(QStringLiteral("Once upon a time"));
        store().send();
        QTRY_VERIFY_WITH_TIMEOUT(!store().generating(), 60000);
        QCOMPARE(store().messages().last().text, reply);

        store().unload();
        QTRY_VERIFY_WITH_TIMEOUT(!store().hasLoadedModel(), 10000);
        store().shutdown();
    }

    void killedEngineIsReported()
    {
        store().start();
        QTRY_VERIFY_WITH_TIMEOUT(store().ready(), 60000);
        QProcess *process = store().process();
        QVERIFY(process);
        ::kill(static_cast<pid_t>(process->processId()), SIGKILL);
        QTRY_VERIFY_WITH_TIMEOUT(store().error().has_value(), 5000);
        QCOMPARE(*store().error(), QStringLiteral("The local engine stopped (9). Relaunch Vorn to reconnect."));
        QCOMPARE(store().activity(), QStringLiteral("Engine stopped"));
        QVERIFY(!store().ready());
        store().shutdown();
    }

    void engineStopsWhenAskedAtQuit()
    {
        store().start();
        QTRY_VERIFY_WITH_TIMEOUT(store().ready(), 60000);
        QProcess *process = store().process();
        QSignalSpy finished(process, &QProcess::finished);
        store().shutdown();
        QVERIFY(finished.wait(10000));
        QCOMPARE(process->exitStatus(), QProcess::NormalExit);
        QCOMPARE(process->exitCode(), 0);
        QVERIFY(!store().error());
    }
};

QTEST_GUILESS_MAIN(EngineEndToEndTest)
#include "EngineEndToEndTest.moc"
