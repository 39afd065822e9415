#include "FakeEngine.h"
#include "StoreFixture.h"
#include "TestHome.h"
#include "engine/EngineStore.h"
#include "PlatformText.h"

#include <QDesktopServices>
#include <QSignalSpy>
#include <QTcpServer>
#include <QtTest>

namespace {

const QString linkMessage = QStringLiteral("Enter an HTTPS Hugging Face download link ending in .gguf.");

QString loadingText(const QString &name)
{
    return QStringLiteral("Loading ") + name + QChar(0x2026);
}

} // namespace

// Takes the place of the file browser: records what the store asks to open.
class OpenedLocations : public QObject {
    Q_OBJECT
public:
    QList<QUrl> urls;

public slots:
    void open(const QUrl &url) { urls.append(url); }
};

// load, unload, download and revealModels against a stand-in engine.
class ModelCommandsTest : public QObject {
    Q_OBJECT

private:
    using Setup = StoreFixture;

    // One status call there and back: whatever the store sent before it has been
    // received by then, so counts taken afterwards are final.
    static void roundTrip(EngineStore &store)
    {
        bool answered = false;
        store.refresh([&answered](bool) { answered = true; });
        QTRY_VERIFY(answered);
    }

    static void verifyJsonCall(const RecordedRequest &request)
    {
        QCOMPARE(request.method, QByteArray("POST"));
        QCOMPARE(request.header("Content-Type"), QByteArray("application/json"));
        QCOMPARE(request.header("X-Vorn-App"), QByteArray("1"));
    }

private slots:
    // --- load ---------------------------------------------------------------------

    void loadSendsFixedSettingsWhateverTheEngineReports()
    {
        QByteArray state = FakeEngine::stateJson(QStringLiteral("other.gguf"));
        state.replace("\"ctx\":4096", "\"ctx\":8192");
        Setup setup(state);
        setup.engine.route("POST", "/api/load", FakeResponse::json(200, "{}"));
        roundTrip(setup.store);
        QCOMPARE(setup.store.state()->ctx, qint64(8192));

        setup.store.load(QStringLiteral("m.gguf"));
        QTRY_VERIFY(!setup.store.loading());

        const auto loads = setup.engine.requestsTo("/api/load");
        QCOMPARE(loads.size(), 1);
        verifyJsonCall(loads.first());
        const QJsonObject expected{{"name", "m.gguf"}, {"gpu", true}, {"ctx", 4096}};
        QCOMPARE(loads.first().json(), expected);
        QVERIFY(loads.first().json().value("gpu").isBool());
        QVERIFY(loads.first().body.contains("\"ctx\":4096"));
    }

    void loadShowsLoadingTextUntilNextPollRound()
    {
        Setup setup(FakeEngine::stateJson(QStringLiteral("m.gguf")));
        setup.engine.route("POST", "/api/load", FakeResponse::json(200, "{}"));
        setup.store.setError(QStringLiteral("Earlier problem"));

        int statusCallsWhenLoadingEnded = -1;
        connect(&setup.store, &EngineStore::loadingChanged, &setup.store, [&] {
            if (!setup.store.loading())
                statusCallsWhenLoadingEnded = setup.engine.countOf("/api/state");
        });

        setup.store.load(QStringLiteral("m.gguf"));
        // Set at once, before the engine has answered.
        QVERIFY(setup.store.loading());
        QCOMPARE(setup.store.activity(), loadingText("m.gguf"));
        QVERIFY(!setup.store.error());

        QTRY_VERIFY(!setup.store.loading());
        // The status was fetched before loading ended, and it left the text alone.
        QCOMPARE(statusCallsWhenLoadingEnded, 1);
        QVERIFY(setup.store.hasLoadedModel());
        QCOMPARE(setup.store.activity(), loadingText("m.gguf"));
        QVERIFY(!setup.store.error());

        // The next poll round replaces it.
        roundTrip(setup.store);
        QCOMPARE(setup.store.activity(), QStringLiteral("Model ready"));
    }

    void loadingTextNamesTheFileAsPassed()
    {
        Setup setup;
        setup.engine.route("POST", "/api/load", FakeResponse::json(200, "{}"));
        setup.store.load(QStringLiteral("Qwen 2.5 Q4_K_M.gguf"));
        QCOMPARE(setup.store.activity(), QStringLiteral("Loading Qwen 2.5 Q4_K_M.gguf\u2026"));
        QTRY_VERIFY(!setup.store.loading());
        QCOMPARE(setup.engine.requestsTo("/api/load").first().json().value("name").toString(),
                 QStringLiteral("Qwen 2.5 Q4_K_M.gguf"));
    }

    void loadWhileLoadingDoesNothing()
    {
        Setup setup;
        FakeResponse slow = FakeResponse::json(200, "{}");
        slow.delayMs = 300;
        setup.engine.route("POST", "/api/load", slow);
        setup.engine.route("POST", "/api/unload", FakeResponse::json(200, "{}"));

        setup.store.load(QStringLiteral("first.gguf"));
        setup.store.load(QStringLiteral("second.gguf"));
        setup.store.unload();
        QCOMPARE(setup.store.activity(), loadingText("first.gguf"));
        QVERIFY(!setup.store.error());

        QTRY_VERIFY(!setup.store.loading());
        roundTrip(setup.store);
        QCOMPARE(setup.engine.countOf("/api/load"), 1);
        QCOMPARE(setup.engine.requestsTo("/api/load").first().json().value("name").toString(),
                 QStringLiteral("first.gguf"));
        QCOMPARE(setup.engine.countOf("/api/unload"), 0);
        QVERIFY(!setup.store.error());
    }

    void loadAndUnloadWhileGeneratingDoNothing()
    {
        Setup setup;
        setup.engine.route("POST", "/api/load", FakeResponse::json(200, "{}"));
        setup.engine.route("POST", "/api/unload", FakeResponse::json(200, "{}"));
        setup.store.setGenerating(true);
        setup.store.setError(QStringLiteral("Earlier problem"));
        const QString activity = setup.store.activity();

        setup.store.load(QStringLiteral("m.gguf"));
        setup.store.unload();
        QVERIFY(!setup.store.loading());
        QCOMPARE(setup.store.activity(), activity);
        QCOMPARE(setup.store.error(), std::optional<QString>(QStringLiteral("Earlier problem")));

        roundTrip(setup.store);
        QCOMPARE(setup.engine.countOf("/api/load"), 0);
        QCOMPARE(setup.engine.countOf("/api/unload"), 0);
    }

    void refusedLoadShowsEngineMessageAndKeepsText()
    {
        Setup setup;
        setup.engine.route("POST", "/api/load", FakeResponse::json(500, R"({"error":"Not enough memory for m.gguf"})"));

        setup.store.load(QStringLiteral("m.gguf"));
        QTRY_VERIFY(!setup.store.loading());
        QCOMPARE(setup.store.error(), std::optional<QString>(QStringLiteral("Not enough memory for m.gguf")));
        QCOMPARE(setup.store.activity(), loadingText("m.gguf"));
        // No status call after a failed load.
        QCOMPARE(setup.engine.countOf("/api/state"), 0);

        roundTrip(setup.store);
        QCOMPARE(setup.store.activity(), PlatformText::readyActivity());
    }

    void refusedLoadWithoutMessageShowsGenericText()
    {
        Setup setup;
        setup.engine.route("POST", "/api/load", FakeResponse::json(400, "not json"));
        setup.store.load(QStringLiteral("m.gguf"));
        QTRY_VERIFY(!setup.store.loading());
        QCOMPARE(setup.store.error(),
                 std::optional<QString>(QStringLiteral("The engine could not complete this request.")));
        QCOMPARE(setup.engine.countOf("/api/state"), 0);
    }

    void unreachableEngineOnLoadShowsTransportError()
    {
        TestHome home;
        EngineStore store;
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const quint16 port = closed.serverPort();
        closed.close();
        store.connectForTesting(QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port)));

        store.load(QStringLiteral("m.gguf"));
        QTRY_VERIFY(!store.loading());
        QVERIFY(store.error());
        QVERIFY(!store.error()->isEmpty());
        QCOMPARE(store.activity(), loadingText("m.gguf"));
    }

    // --- unload -------------------------------------------------------------------

    void aLoadThatGetsNoAnswerSaysItTimedOut()
    {
        Setup setup;
        setup.store.setTimeoutsForTesting(300, 10000);
        setup.engine.route("POST", "/api/load", FakeResponse::silent());
        setup.store.load(QStringLiteral("m.gguf"));
        QVERIFY(setup.store.loading());
        QTRY_VERIFY_WITH_TIMEOUT(!setup.store.loading(), 5000);
        QCOMPARE(setup.store.error().value_or(QString()), QStringLiteral("The request timed out."));
    }

    void unloadBodyIsEmptyObject()
    {
        Setup setup(FakeEngine::stateJson());
        setup.engine.route("POST", "/api/unload", FakeResponse::json(200, "{}"));
        setup.store.setError(QStringLiteral("Earlier problem"));
        const QString activity = setup.store.activity();

        setup.store.unload();
        QVERIFY(!setup.store.loading());
        QCOMPARE(setup.store.activity(), activity);
        QTRY_COMPARE(setup.engine.countOf("/api/unload"), 1);
        const RecordedRequest unload = setup.engine.requestsTo("/api/unload").first();
        verifyJsonCall(unload);
        QCOMPARE(unload.body, QByteArray("{}"));

        // Then one status call; unload neither clears the error nor touches the activity
        // (the status call itself may, as any poll round does).
        QTRY_VERIFY(setup.store.hasState());
        QCOMPARE(setup.engine.countOf("/api/state"), 1);
        QCOMPARE(setup.store.error(), std::optional<QString>(QStringLiteral("Earlier problem")));
        QVERIFY(!setup.store.loading());
    }

    void failedUnloadShowsMessageWithoutRefresh()
    {
        Setup setup;
        setup.engine.route("POST", "/api/unload", FakeResponse::json(409, R"({"error":"A reply is running"})"));
        setup.store.unload();
        QTRY_VERIFY(setup.store.error());
        QCOMPARE(*setup.store.error(), QStringLiteral("A reply is running"));
        QCOMPARE(setup.engine.countOf("/api/state"), 0);
        QVERIFY(!setup.store.hasState());
    }

    // --- download -----------------------------------------------------------------

    void refusedLinks_data()
    {
        QTest::addColumn<QString>("link");
        QTest::newRow("empty") << QString();
        QTest::newRow("plain http") << QStringLiteral("http://huggingface.co/org/repo/resolve/main/model.gguf");
        QTest::newRow("other host") << QStringLiteral("https://example.com/org/repo/resolve/main/model.gguf");
        QTest::newRow("extra label") << QStringLiteral("https://cdn.huggingface.co/org/repo/resolve/main/model.gguf");
        QTest::newRow("www label") << QStringLiteral("https://www.huggingface.co/model.gguf");
        QTest::newRow("lookalike host") << QStringLiteral("https://huggingface.co.example.com/model.gguf");
        QTest::newRow("other top level") << QStringLiteral("https://huggingface.com/model.gguf");
        QTest::newRow("upper-case scheme") << QStringLiteral("HTTPS://huggingface.co/model.gguf");
        QTest::newRow("upper-case host") << QStringLiteral("https://HuggingFace.co/model.gguf");
        QTest::newRow("no scheme") << QStringLiteral("huggingface.co/org/repo/resolve/main/model.gguf");
        QTest::newRow("not gguf") << QStringLiteral("https://huggingface.co/org/repo/resolve/main/model.bin");
        QTest::newRow("gguf not last") << QStringLiteral("https://huggingface.co/org/model.gguf/config.json");
        QTest::newRow("gguf only in query") << QStringLiteral("https://huggingface.co/org/repo?file=model.gguf");
        QTest::newRow("no path") << QStringLiteral("https://huggingface.co");
        QTest::newRow("leading space") << QStringLiteral(" https://huggingface.co/org/model.gguf");
        QTest::newRow("trailing space") << QStringLiteral("https://huggingface.co/org/model.gguf ");
        QTest::newRow("space inside") << QStringLiteral("https://huggingface.co/org/my model.gguf");
        QTest::newRow("not a link") << QStringLiteral("model.gguf");
    }

    void refusedLinks()
    {
        QFETCH(QString, link);
        Setup setup;
        setup.engine.route("POST", "/api/pull", FakeResponse::json(200, "{}"));

        setup.store.download(link);
        QCOMPARE(setup.store.error(), std::optional<QString>(linkMessage));

        roundTrip(setup.store);
        QCOMPARE(setup.engine.countOf("/api/pull"), 0);
        QCOMPARE(setup.engine.countOf("/api/state"), 1);
    }

    void acceptedLinks_data()
    {
        QTest::addColumn<QString>("link");
        QTest::addColumn<QString>("name");
        QTest::newRow("plain") << QStringLiteral("https://huggingface.co/org/repo/resolve/main/model.gguf")
                               << QStringLiteral("model.gguf");
        QTest::newRow("upper-case file keeps its case")
            << QStringLiteral("https://huggingface.co/org/repo/resolve/main/Model.GGUF") << QStringLiteral("Model.GGUF");
        QTest::newRow("query kept in url")
            << QStringLiteral("https://huggingface.co/org/repo/resolve/main/model.gguf?download=true")
            << QStringLiteral("model.gguf");
        QTest::newRow("fragment") << QStringLiteral("https://huggingface.co/org/model.gguf#top")
                                  << QStringLiteral("model.gguf");
        QTest::newRow("port") << QStringLiteral("https://huggingface.co:443/org/model.gguf") << QStringLiteral("model.gguf");
        QTest::newRow("escaped name is decoded")
            << QStringLiteral("https://huggingface.co/org/My%20Model.gguf") << QStringLiteral("My Model.gguf");
    }

    void acceptedLinks()
    {
        QFETCH(QString, link);
        QFETCH(QString, name);
        Setup setup;
        setup.engine.route("POST", "/api/pull", FakeResponse::json(200, "{}"));
        // A valid link leaves an earlier message where it is.
        setup.store.setError(QStringLiteral("Earlier problem"));

        setup.store.download(link);
        QTRY_COMPARE(setup.engine.countOf("/api/pull"), 1);
        const RecordedRequest pull = setup.engine.requestsTo("/api/pull").first();
        verifyJsonCall(pull);
        const QJsonObject expected{{"name", name}, {"url", link}};
        QCOMPARE(pull.json(), expected);

        // Then one status call.
        QTRY_VERIFY(setup.store.hasState());
        QCOMPARE(setup.engine.countOf("/api/state"), 1);
        QCOMPARE(setup.store.error(), std::optional<QString>(QStringLiteral("Earlier problem")));
    }

    void sameLinkTwiceSendsTwoPulls()
    {
        Setup setup;
        setup.engine.route("POST", "/api/pull", FakeResponse::json(200, "{}"));
        const QString link = QStringLiteral("https://huggingface.co/org/repo/resolve/main/model.gguf");
        setup.store.download(link);
        setup.store.download(link);
        QTRY_COMPARE(setup.engine.countOf("/api/pull"), 2);
        QTRY_COMPARE(setup.engine.countOf("/api/state"), 2);
        QVERIFY(!setup.store.error());
    }

    void refusedPullShowsMessageWithoutRefresh()
    {
        Setup setup;
        setup.engine.route("POST", "/api/pull", FakeResponse::json(502, R"({"error":"The hub did not answer"})"));
        setup.store.download(QStringLiteral("https://huggingface.co/org/model.gguf"));
        QTRY_VERIFY(setup.store.error());
        QCOMPARE(*setup.store.error(), QStringLiteral("The hub did not answer"));
        QCOMPARE(setup.engine.countOf("/api/state"), 0);
    }

    // --- reveal -------------------------------------------------------------------

    void revealOpensModelsFolder()
    {
        TestHome home;
        EngineStore store;
        OpenedLocations opened;
        QDesktopServices::setUrlHandler(QStringLiteral("file"), &opened, "open");
        store.revealModels();
        QDesktopServices::unsetUrlHandler(QStringLiteral("file"));
        QCOMPARE(opened.urls, QList<QUrl>{QUrl::fromLocalFile(home.modelsFolder())});
        QVERIFY(!store.error());
    }
};

QTEST_MAIN(ModelCommandsTest)
#include "ModelCommandsTest.moc"
