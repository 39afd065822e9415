#include "StoreTestCase.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QtTest>
#include <memory>

// Launching, watching and stopping the engine, with small scripts standing in for it.
class ProcessTest : public StoreTestCase {
    Q_OBJECT

private:
    // Writes an executable stand-in engine that records its arguments, then runs body.
    static QString writeEngine(const QString &folder, const QByteArray &body, bool executable = true)
    {
        const QString path = QDir(folder).filePath(QStringLiteral("vorn-engine"));
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly))
            return {};
        file.write("#!/bin/sh\n"
                   "for argument in \"$@\"; do printf '%s\\n' \"$argument\"; done >> \"$HOME/launches\"\n"
                   "echo --- >> \"$HOME/launches\"\n");
        file.write(body);
        file.close();
        QFile::Permissions permissions = QFileDevice::ReadOwner | QFileDevice::WriteOwner;
        if (executable)
            permissions |= QFileDevice::ExeOwner;
        file.setPermissions(permissions);
        EngineConnection::setEngineLocationForTesting(path);
        return path;
    }

    static QStringList launches(const TestHome &home)
    {
        QFile file(QDir(home.path()).filePath(QStringLiteral("launches")));
        if (!file.open(QIODevice::ReadOnly))
            return {};
        return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }

    // Starts a stand-in engine process, with a fake engine on its port that reports a
    // loaded model; empty when the store did not get ready with it.
    static std::unique_ptr<FakeEngine> startWithALoadedModel(const TestHome &home, EngineStore &store)
    {
        writeEngine(home.path(), "exec sleep 30\n");
        store.start();
        auto engine = std::make_unique<FakeEngine>();
        if (!store.baseURL() || !engine->listen(static_cast<quint16>(store.baseURL()->port())))
            return {};
        engine->setState(FakeEngine::stateJson(QStringLiteral("m.gguf")));
        if (!QTest::qWaitFor([&] { return store.ready() && store.hasLoadedModel(); }, 5000))
            return {};
        return engine;
    }

    static int launchCount(const TestHome &home)
    {
        return static_cast<int>(launches(home).count(QStringLiteral("---")));
    }

private slots:
    // A store with no engine address: each test launches its own stand-in.
    void init() { build(FakeEngine::stateJson(), StoreFixture::Engine::None); }
    void cleanup()
    {
        StoreTestCase::cleanup();
        EngineConnection::setEngineLocationForTesting({});
    }

    void launchesWithSixArgumentsOnALoopbackPort()
    {
        writeEngine(home().path(), "exec sleep 30\n");
        store().start();
        QVERIFY(store().process());
        QVERIFY(store().pollTask());
        QTRY_COMPARE(launchCount(home()), 1);
        const QStringList arguments = launches(home());
        QCOMPARE(arguments.size(), 7);
        QCOMPARE(arguments.at(0), QStringLiteral("app"));
        QCOMPARE(arguments.at(1), QStringLiteral("--port"));
        const int port = arguments.at(2).toInt();
        QVERIFY(port >= 20000 && port <= 49000);
        QCOMPARE(arguments.at(2), QString::number(port));
        QCOMPARE(arguments.at(3), QStringLiteral("--models-dir"));
        QCOMPARE(arguments.at(4), home().modelsFolder());
        QCOMPARE(arguments.at(5), QStringLiteral("--no-open"));
        QCOMPARE(store().baseURL()->toString(), QStringLiteral("http://127.0.0.1:%1").arg(port));
        QVERIFY(QFileInfo(home().modelsFolder()).isDir());
        store().shutdown();
    }

    void portsStayInRange()
    {
        writeEngine(home().path(), "exit 0\n");
        for (int round = 0; round < 40; ++round) {
            setup().restart();
            store().start();
            const int port = store().baseURL()->port();
            QVERIFY2(port >= 20000 && port <= 49000, qPrintable(QString::number(port)));
            store().shutdown();
        }
    }

    void startingTwiceLaunchesOnce()
    {
        writeEngine(home().path(), "exec sleep 30\n");
        store().start();
        QProcess *first = store().process();
        store().start();
        QCOMPARE(store().process(), first);
        // A launch is started before start() returns: one process object means one launch.
        QCOMPARE(store().findChildren<QProcess *>().size(), 1);
        QTRY_COMPARE(launchCount(home()), 1);
        store().shutdown();
    }

    void engineWithoutExecutePermissionIsMissing()
    {
        writeEngine(home().path(), "exec sleep 30\n", false);
        const QString activity = store().activity();
        store().start();
        QVERIFY(!store().process());
        QVERIFY(!store().pollTask());
        QVERIFY(!store().baseURL());
        QCOMPARE(*store().error(), QStringLiteral("The bundled Vorn engine is missing. Please reinstall the app."));
        QCOMPARE(store().activity(), activity);
        QVERIFY(store().findChildren<QProcess *>().isEmpty());
        QCOMPARE(launchCount(home()), 0);
    }

    void absentEngineIsMissing()
    {
        EngineConnection::setEngineLocationForTesting(QDir(home().path()).filePath("nowhere/vorn-engine"));
        store().start();
        QVERIFY(!store().process());
        QCOMPARE(*store().error(), QStringLiteral("The bundled Vorn engine is missing. Please reinstall the app."));
    }

    void theEngineBesideTheAppComesFirstThenTheInstalledOne()
    {
        const QDir root(home().path());
        QVERIFY(root.mkpath(QStringLiteral("prefix/bin")));
        QVERIFY(root.mkpath(QStringLiteral("prefix/libexec/vorn")));
        const QString bin = root.filePath(QStringLiteral("prefix/bin"));
        const QString beside = QDir(bin).filePath(QStringLiteral("vorn-engine"));
        const QString installed = root.filePath(QStringLiteral("prefix/libexec/vorn/vorn-engine"));

        // Neither: the path beside the app, which start() reports as missing.
        QCOMPARE(EngineConnection::engineLocationFor(bin), beside);

        // The installed layout: the engine in libexec/vorn next to bin.
        writeEngine(root.filePath(QStringLiteral("prefix/libexec/vorn")), "exit 0\n");
        QCOMPARE(EngineConnection::engineLocationFor(bin), installed);

        // The build folder's layout, the engine beside the app, wins.
        writeEngine(bin, "exit 0\n");
        QCOMPARE(EngineConnection::engineLocationFor(bin), beside);

        QCOMPARE(EngineConnection::engineLocationFor(QString()), QString());
    }

    void unlaunchableEngineReportsTheFailure()
    {
        const QString path = QDir(home().path()).filePath(QStringLiteral("vorn-engine"));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QByteArray("\x7f"
                              "ELF not really",
                              15));
        file.close();
        file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        EngineConnection::setEngineLocationForTesting(path);
        store().start();
        QVERIFY(!store().process());
        QVERIFY(!store().pollTask());
        QVERIFY(store().error());
        QVERIFY(!store().error()->isEmpty());
        QCOMPARE(store().activity(), QStringLiteral("Could not start engine"));
    }

    void engineExitingOnItsOwnIsReported()
    {
        writeEngine(home().path(), "sleep 0.3\nexit 1\n");
        int notices = 0;
        store().setOnStatusChange([&] { ++notices; });
        store().start();
        QTRY_VERIFY_WITH_TIMEOUT(store().error().has_value(), 5000);
        QCOMPARE(*store().error(), QStringLiteral("The local engine stopped (1). Relaunch Vorn to reconnect."));
        QCOMPARE(store().activity(), QStringLiteral("Engine stopped"));
        QVERIFY(!store().ready());
        QVERIFY(notices >= 1);
        // Not relaunched, and a second start does nothing while the dead process is kept.
        QProcess *dead = store().process();
        QVERIFY(dead);
        store().start();
        QCOMPARE(store().process(), dead);
        QCOMPARE(store().findChildren<QProcess *>().size(), 1);
        QCOMPARE(launchCount(home()), 1);
        store().shutdown();
    }

    void engineKilledBySignalReportsTheSignal()
    {
        writeEngine(home().path(), "sleep 0.3\nkill -9 $$\n");
        store().start();
        QTRY_VERIFY_WITH_TIMEOUT(store().error().has_value(), 5000);
        QCOMPARE(*store().error(), QStringLiteral("The local engine stopped (9). Relaunch Vorn to reconnect."));
        store().shutdown();
    }

    // The engine's end has been reported and the user dismissed it: what fails later
    // is shown all the same.
    void aSendAfterTheEngineStoppedShowsItsError()
    {
        std::unique_ptr<FakeEngine> engine = startWithALoadedModel(home(), store());
        QVERIFY(engine);
        store().process()->kill();
        QTRY_COMPARE_WITH_TIMEOUT(store().error().value_or(QString()),
                                  QStringLiteral("The local engine stopped (9). Relaunch Vorn to reconnect."), 5000);
        engine.reset();
        store().clearError();

        store().setPrompt(QStringLiteral("Still there?"));
        store().send();
        QVERIFY(store().generating());
        QTRY_VERIFY_WITH_TIMEOUT(!store().generating(), 5000);
        QVERIFY(store().error());
        QVERIFY(!store().error()->isEmpty());
        QVERIFY(!store().error()->startsWith(QStringLiteral("The local engine stopped")));
        QCOMPARE(store().messages().last().text, QStringLiteral("The request did not complete."));
        store().shutdown();
    }

    // A reply breaks when its engine dies; the engine's end is the message that stays.
    void theEnginesEndOutlastsTheBrokenReply()
    {
        std::unique_ptr<FakeEngine> engine = startWithALoadedModel(home(), store());
        QVERIFY(engine);
        FakeResponse endless = FakeResponse::stream({FakeResponse::delta(QStringLiteral("Half"))});
        endless.parts.append({60000, "data: [DONE]\n\n"});
        engine->route("POST", "/v1/chat/completions", endless);
        store().setPrompt(QStringLiteral("Tell me"));
        store().send();
        QTRY_COMPARE_WITH_TIMEOUT(store().messages().last().text, QStringLiteral("Half"), 5000);

        // The process ends first; its connections break a moment later.
        QSignalSpy finished(store().process(), &QProcess::finished);
        store().process()->kill();
        QVERIFY(finished.wait(5000));
        QCoreApplication::processEvents();
        engine.reset();
        QTRY_VERIFY_WITH_TIMEOUT(!store().generating(), 5000);
        QTRY_VERIFY_WITH_TIMEOUT(!store().ready(), 5000);
        QCOMPARE(store().error().value_or(QString()),
                 QStringLiteral("The local engine stopped (9). Relaunch Vorn to reconnect."));
        QCOMPARE(store().activity(), QStringLiteral("Engine stopped"));
        QCOMPARE(store().messages().last().text, QStringLiteral("Half"));
        store().shutdown();
    }

    void shutdownIsNotReportedAsAFailure()
    {
        writeEngine(home().path(), "exec sleep 30\n");
        FakeEngine engine;
        int notices = 0;
        store().setOnStatusChange([&] { ++notices; });
        store().start();
        QVERIFY(engine.listen(static_cast<quint16>(store().baseURL()->port())));
        engine.setState(FakeEngine::stateJson());
        QTRY_VERIFY_WITH_TIMEOUT(store().ready(), 5000);
        const int noticesBefore = notices;
        const QString activity = store().activity();
        QProcess *process = store().process();
        QSignalSpy finished(process, &QProcess::finished);
        store().shutdown();
        QVERIFY(!store().process());
        QVERIFY(finished.wait(5000));
        QTRY_VERIFY(!store().ready());
        QTRY_COMPARE(notices, noticesBefore + 1);
        QVERIFY(!store().error());
        QCOMPARE(store().activity(), activity);
        // The poll task has ended, so no status call follows.
        QTRY_VERIFY(!store().pollTask());
    }

    void shutdownSavesTheHistory()
    {
        writeEngine(home().path(), "exec sleep 30\n");
        store().start();
        store().shutdown();
        QVERIFY(QFileInfo::exists(home().historyFile()));
    }

    void silentEngineGivesUpAfterFiftyTriesThenIsPickedUpLate()
    {
        writeEngine(home().path(), "exec sleep 60\n");
        store().start();
        const quint16 port = static_cast<quint16>(store().baseURL()->port());
        QTRY_VERIFY_WITH_TIMEOUT(store().error().has_value(), 30000);
        QCOMPARE(*store().error(), QStringLiteral("The local engine did not respond. Relaunch Vorn to try again."));
        QVERIFY(!store().ready());
        QCOMPARE(store().activity(), QStringLiteral("Starting local engine\u2026"));

        FakeEngine engine;
        QVERIFY(engine.listen(port));
        engine.setState(FakeEngine::stateJson());
        QTRY_VERIFY_WITH_TIMEOUT(store().ready(), 6000);
        QCOMPARE(*store().error(), QStringLiteral("The local engine did not respond. Relaunch Vorn to try again."));
        store().shutdown();
    }

    void startupWaitMakesAtMostFiftyCalls()
    {
        writeEngine(home().path(), "exec sleep 60\n");
        store().start();
        FakeEngine engine;
        QVERIFY(engine.listen(static_cast<quint16>(store().baseURL()->port())));
        engine.route("GET", "/api/state", FakeResponse::json(500, R"({"error":"warming up"})"));
        int callsWhenGivingUp = -1;
        connect(&store(), &EngineStore::errorChanged, this, [&] { callsWhenGivingUp = engine.countOf("/api/state"); });
        QTRY_VERIFY_WITH_TIMEOUT(store().error().has_value(), 30000);
        QCOMPARE(callsWhenGivingUp, 50);
        QCOMPARE(*store().error(), QStringLiteral("The local engine did not respond. Relaunch Vorn to try again."));
        // Then the poll loop goes on every two seconds.
        QTRY_VERIFY_WITH_TIMEOUT(engine.countOf("/api/state") >= 51, 3000);
        store().shutdown();
    }
};

QTEST_GUILESS_MAIN(ProcessTest)
#include "ProcessTest.moc"
