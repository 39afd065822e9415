#include "HelperChecks.h"
#include "PlatformText.h"
#include "StoreTestCase.h"

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
class ModelCommandsTest : public StoreTestCase {
    Q_OBJECT

private:
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
        engine().setState(state);
        engine().route("POST", "/api/load", FakeResponse::json(200, "{}"));
        QVERIFY(setup().roundTrip());
        QCOMPARE(store().state()->ctx, qint64(8192));

        store().load(QStringLiteral("m.gguf"));
        QTRY_VERIFY(!store().loading());

        const auto loads = engine().requestsTo("/api/load");
        QCOMPARE(loads.size(), 1);
        VERIFY_HELPER(verifyJsonCall(loads.first()));
        const QJsonObject expected{{"name", "m.gguf"}, {"gpu", true}, {"ctx", 4096}};
        QCOMPARE(loads.first().json(), expected);
        QVERIFY(loads.first().json().value("gpu").isBool());
        QVERIFY(loads.first().body.contains("\"ctx\":4096"));
    }

    void loadShowsLoadingTextUntilNextPollRound()
    {
        engine().setState(FakeEngine::stateJson(QStringLiteral("m.gguf")));
        engine().route("POST", "/api/load", FakeResponse::json(200, "{}"));
        store().setError(QStringLiteral("Earlier problem"));

        int statusCallsWhenLoadingEnded = -1;
        connect(&store(), &EngineStore::loadingChanged, &store(), [&] {
            if (!store().loading())
                statusCallsWhenLoadingEnded = engine().countOf("/api/state");
        });

        store().load(QStringLiteral("m.gguf"));
        // Set at once, before the engine has answered.
        QVERIFY(store().loading());
        QCOMPARE(store().activity(), loadingText("m.gguf"));
        QVERIFY(!store().error());

        QTRY_VERIFY(!store().loading());
        // The status was fetched before loading ended, and it left the text alone.
        QCOMPARE(statusCallsWhenLoadingEnded, 1);
        QVERIFY(store().hasLoadedModel());
        QCOMPARE(store().activity(), loadingText("m.gguf"));
        QVERIFY(!store().error());

        // The next poll round replaces it.
        QVERIFY(setup().roundTrip());
        QCOMPARE(store().activity(), QStringLiteral("Model ready"));
    }

    void loadingTextNamesTheFileAsPassed()
    {
        engine().route("POST", "/api/load", FakeResponse::json(200, "{}"));
        store().load(QStringLiteral("Qwen 2.5 Q4_K_M.gguf"));
        QCOMPARE(store().activity(), QStringLiteral("Loading Qwen 2.5 Q4_K_M.gguf\u2026"));
        QTRY_VERIFY(!store().loading());
        QCOMPARE(engine().requestsTo("/api/load").first().json().value("name").toString(),
                 QStringLiteral("Qwen 2.5 Q4_K_M.gguf"));
    }

    void loadWhileLoadingDoesNothing()
    {
        FakeResponse slow = FakeResponse::json(200, "{}");
        slow.delayMs = 300;
        engine().route("POST", "/api/load", slow);
        engine().route("POST", "/api/unload", FakeResponse::json(200, "{}"));

        store().load(QStringLiteral("first.gguf"));
        store().load(QStringLiteral("second.gguf"));
        store().unload();
        QCOMPARE(store().activity(), loadingText("first.gguf"));
        QVERIFY(!store().error());

        QTRY_VERIFY(!store().loading());
        QVERIFY(setup().roundTrip());
        QCOMPARE(engine().countOf("/api/load"), 1);
        QCOMPARE(engine().requestsTo("/api/load").first().json().value("name").toString(),
                 QStringLiteral("first.gguf"));
        QCOMPARE(engine().countOf("/api/unload"), 0);
        QVERIFY(!store().error());
    }

    void loadAndUnloadWhileGeneratingDoNothing()
    {
        engine().route("POST", "/api/load", FakeResponse::json(200, "{}"));
        engine().route("POST", "/api/unload", FakeResponse::json(200, "{}"));
        store().chat().setGenerating(true);
        store().setError(QStringLiteral("Earlier problem"));
        const QString activity = store().activity();

        store().load(QStringLiteral("m.gguf"));
        store().unload();
        QVERIFY(!store().loading());
        QCOMPARE(store().activity(), activity);
        QCOMPARE(store().error(), std::optional<QString>(QStringLiteral("Earlier problem")));

        QVERIFY(setup().roundTrip());
        QCOMPARE(engine().countOf("/api/load"), 0);
        QCOMPARE(engine().countOf("/api/unload"), 0);
    }

    void refusedLoadShowsEngineMessageAndKeepsText()
    {
        engine().route("POST", "/api/load", FakeResponse::json(500, R"({"error":"Not enough memory for m.gguf"})"));

        store().load(QStringLiteral("m.gguf"));
        QTRY_VERIFY(!store().loading());
        QCOMPARE(store().error(), std::optional<QString>(QStringLiteral("Not enough memory for m.gguf")));
        QCOMPARE(store().activity(), loadingText("m.gguf"));
        // No status call after a failed load.
        QCOMPARE(engine().countOf("/api/state"), 0);

        QVERIFY(setup().roundTrip());
        QCOMPARE(store().activity(), PlatformText::readyActivity());
    }

    void refusedLoadWithoutMessageShowsGenericText()
    {
        engine().route("POST", "/api/load", FakeResponse::json(400, "not json"));
        store().load(QStringLiteral("m.gguf"));
        QTRY_VERIFY(!store().loading());
        QCOMPARE(store().error(),
                 std::optional<QString>(QStringLiteral("The engine could not complete this request.")));
        QCOMPARE(engine().countOf("/api/state"), 0);
    }

    void unreachableEngineOnLoadShowsTransportError()
    {
        build(FakeEngine::stateJson(), StoreFixture::Engine::None);
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const quint16 port = closed.serverPort();
        closed.close();
        store().engine().client().setBaseURL(QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port)));

        store().load(QStringLiteral("m.gguf"));
        QTRY_VERIFY(!store().loading());
        QVERIFY(store().error());
        QVERIFY(!store().error()->isEmpty());
        QCOMPARE(store().activity(), loadingText("m.gguf"));
    }

    // --- unload -------------------------------------------------------------------

    void aLoadThatGetsNoAnswerSaysItTimedOut()
    {
        store().engine().client().setTimeouts(300, 10000);
        engine().route("POST", "/api/load", FakeResponse::silent());
        store().load(QStringLiteral("m.gguf"));
        QVERIFY(store().loading());
        QTRY_VERIFY_WITH_TIMEOUT(!store().loading(), 5000);
        QCOMPARE(store().error().value_or(QString()), QStringLiteral("The request timed out."));
    }

    void unloadBodyIsEmptyObject()
    {
        engine().setState(FakeEngine::stateJson());
        engine().route("POST", "/api/unload", FakeResponse::json(200, "{}"));
        store().setError(QStringLiteral("Earlier problem"));
        const QString activity = store().activity();

        store().unload();
        QVERIFY(!store().loading());
        QCOMPARE(store().activity(), activity);
        QTRY_COMPARE(engine().countOf("/api/unload"), 1);
        const RecordedRequest unload = engine().requestsTo("/api/unload").first();
        VERIFY_HELPER(verifyJsonCall(unload));
        QCOMPARE(unload.body, QByteArray("{}"));

        // Then one status call; unload neither clears the error nor touches the activity
        // (the status call itself may, as any poll round does).
        QTRY_VERIFY(store().hasState());
        QCOMPARE(engine().countOf("/api/state"), 1);
        QCOMPARE(store().error(), std::optional<QString>(QStringLiteral("Earlier problem")));
        QVERIFY(!store().loading());
    }

    void failedUnloadShowsMessageWithoutRefresh()
    {
        engine().route("POST", "/api/unload", FakeResponse::json(409, R"({"error":"A reply is running"})"));
        store().unload();
        QTRY_VERIFY(store().error());
        QCOMPARE(*store().error(), QStringLiteral("A reply is running"));
        QCOMPARE(engine().countOf("/api/state"), 0);
        QVERIFY(!store().hasState());
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
        engine().route("POST", "/api/pull", FakeResponse::json(200, "{}"));

        store().download(link);
        QCOMPARE(store().error(), std::optional<QString>(linkMessage));

        QVERIFY(setup().roundTrip());
        QCOMPARE(engine().countOf("/api/pull"), 0);
        QCOMPARE(engine().countOf("/api/state"), 1);
    }

    void acceptedLinks_data()
    {
        QTest::addColumn<QString>("link");
        QTest::addColumn<QString>("name");
        QTest::newRow("plain") << QStringLiteral("https://huggingface.co/org/repo/resolve/main/model.gguf")
                               << QStringLiteral("model.gguf");
        QTest::newRow("upper-case file keeps its case")
            << QStringLiteral("https://huggingface.co/org/repo/resolve/main/Model.GGUF")
            << QStringLiteral("Model.GGUF");
        QTest::newRow("query kept in url")
            << QStringLiteral("https://huggingface.co/org/repo/resolve/main/model.gguf?download=true")
            << QStringLiteral("model.gguf");
        QTest::newRow("fragment") << QStringLiteral("https://huggingface.co/org/model.gguf#top")
                                  << QStringLiteral("model.gguf");
        QTest::newRow("port") << QStringLiteral("https://huggingface.co:443/org/model.gguf")
                              << QStringLiteral("model.gguf");
        QTest::newRow("escaped name is decoded")
            << QStringLiteral("https://huggingface.co/org/My%20Model.gguf") << QStringLiteral("My Model.gguf");
    }

    void acceptedLinks()
    {
        QFETCH(QString, link);
        QFETCH(QString, name);
        engine().route("POST", "/api/pull", FakeResponse::json(200, "{}"));
        // A valid link leaves an earlier message where it is.
        store().setError(QStringLiteral("Earlier problem"));

        store().download(link);
        QTRY_COMPARE(engine().countOf("/api/pull"), 1);
        const RecordedRequest pull = engine().requestsTo("/api/pull").first();
        VERIFY_HELPER(verifyJsonCall(pull));
        const QJsonObject expected{{"name", name}, {"url", link}};
        QCOMPARE(pull.json(), expected);

        // Then one status call.
        QTRY_VERIFY(store().hasState());
        QCOMPARE(engine().countOf("/api/state"), 1);
        QCOMPARE(store().error(), std::optional<QString>(QStringLiteral("Earlier problem")));
    }

    void sameLinkTwiceSendsTwoPulls()
    {
        engine().route("POST", "/api/pull", FakeResponse::json(200, "{}"));
        const QString link = QStringLiteral("https://huggingface.co/org/repo/resolve/main/model.gguf");
        store().download(link);
        store().download(link);
        QTRY_COMPARE(engine().countOf("/api/pull"), 2);
        QTRY_COMPARE(engine().countOf("/api/state"), 2);
        QVERIFY(!store().error());
    }

    void refusedPullShowsMessageWithoutRefresh()
    {
        engine().route("POST", "/api/pull", FakeResponse::json(502, R"({"error":"The hub did not answer"})"));
        store().download(QStringLiteral("https://huggingface.co/org/model.gguf"));
        QTRY_VERIFY(store().error());
        QCOMPARE(*store().error(), QStringLiteral("The hub did not answer"));
        QCOMPARE(engine().countOf("/api/state"), 0);
    }

    // --- reveal -------------------------------------------------------------------

    void revealOpensModelsFolder()
    {
        OpenedLocations opened;
        QDesktopServices::setUrlHandler(QStringLiteral("file"), &opened, "open");
        store().revealModels();
        QDesktopServices::unsetUrlHandler(QStringLiteral("file"));
        QCOMPARE(opened.urls, QList<QUrl>{QUrl::fromLocalFile(home().modelsFolder())});
        QVERIFY(!store().error());
    }
};

QTEST_MAIN(ModelCommandsTest)
#include "ModelCommandsTest.moc"
