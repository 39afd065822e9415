#include "HelperChecks.h"
#include "PlatformText.h"
#include "StoreTestCase.h"

#include "library/ContextChoiceListModel.h"
#include "library/LocalModelListModel.h"

#include <QDesktopServices>
#include <QSettings>
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

    // --- context -------------------------------------------------------------------

    void theContextStartsAt4096WithEightChoices()
    {
        QCOMPARE(store().contextChoice(), 4096);
        QCOMPARE(store().contextChoiceIndex(), 1);
        QAbstractItemModel *choices = store().contextChoices();
        QCOMPARE(choices->rowCount(), 8);
        QStringList labels;
        for (int row = 0; row < choices->rowCount(); ++row) {
            labels.append(choices->index(row, 0).data(ContextChoiceListModel::LabelRole).toString());
            // Nothing is loaded: every choice is open.
            QVERIFY(choices->index(row, 0).data(ContextChoiceListModel::AvailableRole).toBool());
        }
        QCOMPARE(labels, (QStringList{"2048", "4096", "8192", "16384", "32768", "65536", "131072", "Model maximum"}));
        QCOMPARE(choices->index(7, 0).data(ContextChoiceListModel::TokensRole).toInt(), 0);
    }

    void loadsSendTheChosenContextAndTheMaximumAsZero()
    {
        const QByteArray models = "[" + FakeEngine::modelJson("long.gguf", 10, {"llama", 131072, 0, {}, 0}) + ","
            + FakeEngine::modelJson("plain.gguf", 10, {}) + "]";
        engine().setState(FakeEngine::stateJson({}, false, models));
        engine().route("POST", "/api/load", FakeResponse::json(200, "{}"));
        QVERIFY(setup().roundTrip());

        store().setContextChoice(32768);
        QCOMPARE(store().contextChoice(), 32768);
        store().load(QStringLiteral("long.gguf"));
        QTRY_VERIFY(!store().loading());
        store().setContextChoice(0);
        store().load(QStringLiteral("long.gguf"));
        QTRY_VERIFY(!store().loading());
        // A model whose header does not tell its trained context gets the choice as it is.
        store().setContextChoice(65536);
        store().load(QStringLiteral("plain.gguf"));
        QTRY_VERIFY(!store().loading());

        const auto loads = engine().requestsTo("/api/load");
        QCOMPARE(loads.size(), 3);
        QCOMPARE(loads.at(0).json(), (QJsonObject{{"name", "long.gguf"}, {"gpu", true}, {"ctx", 32768}}));
        QCOMPARE(loads.at(1).json(), (QJsonObject{{"name", "long.gguf"}, {"gpu", true}, {"ctx", 0}}));
        QCOMPARE(loads.at(2).json(), (QJsonObject{{"name", "plain.gguf"}, {"gpu", true}, {"ctx", 65536}}));
    }

    void aModelTrainedForLessLoadsWithItsMaximum()
    {
        const QByteArray models = "[" + FakeEngine::modelJson("short.gguf", 10, {"llama", 2048, 0, {}, 0}) + "]";
        engine().setState(FakeEngine::stateJson({}, false, models));
        engine().route("POST", "/api/load", FakeResponse::json(200, "{}"));
        QVERIFY(setup().roundTrip());

        store().setContextChoice(16384);
        store().load(QStringLiteral("short.gguf"));
        QTRY_VERIFY(!store().loading());
        // 4096 tokens it takes, as loads always asked for.
        store().setContextChoice(4096);
        store().load(QStringLiteral("short.gguf"));
        QTRY_VERIFY(!store().loading());

        const auto loads = engine().requestsTo("/api/load");
        QCOMPARE(loads.size(), 2);
        QCOMPARE(loads.at(0).json().value("ctx").toInt(-1), 0);
        QCOMPARE(loads.at(1).json().value("ctx").toInt(-1), 4096);
        QVERIFY(!store().error());
    }

    void choicesAboveTheLoadedModelsTrainingAreClosed()
    {
        const QByteArray models = "[" + FakeEngine::modelJson("m.gguf", 10, {"llama", 8192, 0, {}, 0}) + "]";
        engine().setState(FakeEngine::stateJson(QStringLiteral("m.gguf"), false, models));
        QVERIFY(setup().roundTrip());

        QAbstractItemModel *choices = store().contextChoices();
        QList<bool> available;
        for (int row = 0; row < choices->rowCount(); ++row)
            available.append(choices->index(row, 0).data(ContextChoiceListModel::AvailableRole).toBool());
        QCOMPARE(available, (QList<bool>{true, true, true, false, false, false, false, true}));

        // A closed choice is refused, and the picker is told to show the one that holds.
        QSignalSpy changed(&store(), &EngineStore::contextChoiceChanged);
        store().chooseContext(3);
        QCOMPARE(store().contextChoice(), 4096);
        QCOMPARE(changed.size(), 1);
        store().setContextChoice(12345);
        QCOMPARE(store().contextChoice(), 4096);
        QCOMPARE(changed.size(), 2);
        QVERIFY(setup().roundTrip());
        QCOMPARE(engine().countOf("/api/load"), 0);

        // Unloaded, every choice opens again.
        engine().setState(FakeEngine::stateJson({}, false, models));
        QVERIFY(setup().roundTrip());
        QVERIFY(choices->index(6, 0).data(ContextChoiceListModel::AvailableRole).toBool());
    }

    void theDefaultContextStaysOpenForAModelTrainedWithLess()
    {
        const QByteArray models = "[" + FakeEngine::modelJson("m.gguf", 10, {"llama", 2048, 0, {}, 0}) + "]";
        engine().setState(FakeEngine::stateJson(QStringLiteral("m.gguf"), false, models));
        QVERIFY(setup().roundTrip());

        QAbstractItemModel *choices = store().contextChoices();
        for (int row = 0; row < choices->rowCount(); ++row)
            QCOMPARE(choices->index(row, 0).data(ContextChoiceListModel::AvailableRole).toBool(), row < 2 || row == 7);
        QCOMPARE(store().contextChoice(), 4096);
    }

    void aNewChoiceReloadsTheLoadedModel()
    {
        const QByteArray models = "[" + FakeEngine::modelJson("m.gguf", 10, {"llama", 32768, 0, {}, 0}) + "]";
        // The engine reports the context of the last load.
        auto loadedContext = std::make_shared<qint64>(4096);
        engine().route("GET", "/api/state", [models, loadedContext](const RecordedRequest &) {
            return FakeResponse::json(200,
                                      FakeEngine::stateJson(QStringLiteral("m.gguf"), false, models, "[]", 0, 0,
                                                            QStringLiteral("cpu"), *loadedContext));
        });
        engine().route("POST", "/api/load", [loadedContext](const RecordedRequest &request) {
            const qint64 context = request.json().value("ctx").toInteger();
            *loadedContext = context == 0 ? 32768 : context;
            return FakeResponse::json(200, "{}");
        });
        QVERIFY(setup().roundTrip());

        store().setContextChoice(16384);
        QVERIFY(store().loading());
        QTRY_VERIFY(!store().loading());
        QCOMPARE(store().state()->ctx, qint64(16384));
        store().chooseContext(7);
        QTRY_VERIFY(!store().loading());
        QCOMPARE(store().state()->ctx, qint64(32768));
        // The model maximum is what is loaded: 32768 changes nothing.
        store().setContextChoice(32768);
        QCOMPARE(store().contextChoice(), 32768);
        QVERIFY(!store().loading());

        const auto loads = engine().requestsTo("/api/load");
        QCOMPARE(loads.size(), 2);
        QCOMPARE(loads.at(0).json(), (QJsonObject{{"name", "m.gguf"}, {"gpu", true}, {"ctx", 16384}}));
        QCOMPARE(loads.at(1).json(), (QJsonObject{{"name", "m.gguf"}, {"gpu", true}, {"ctx", 0}}));
    }

    void theChoiceWaitsWhileAReplyIsGenerated()
    {
        engine().setState(FakeEngine::stateJson(QStringLiteral("m.gguf")));
        engine().route("POST", "/v1/chat/completions", FakeResponse::silent());
        QVERIFY(setup().roundTrip());
        store().setPrompt(QStringLiteral("Hello"));
        store().send();
        QTRY_VERIFY(store().generating());

        store().setContextChoice(8192);
        QCOMPARE(store().contextChoice(), 4096);
        store().stop();
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(engine().countOf("/api/load"), 0);
    }

    void theChoiceSurvivesARestart()
    {
        store().setContextChoice(16384);
        setup().restart();
        QCOMPARE(store().contextChoice(), 16384);
        QCOMPARE(store().contextChoiceIndex(), 3);
        store().setContextChoice(0);
        setup().restart();
        QCOMPARE(store().contextChoice(), 0);
        // A stored size that is not offered starts from the default.
        QSettings().setValue("context", 5000);
        setup().restart();
        QCOMPARE(store().contextChoice(), 4096);
    }

    void theKvCacheOfEachModelFollowsTheChoice()
    {
        const QByteArray models = "["
            + FakeEngine::modelJson("m.gguf", 10, {"llama", 131072, 1100048384, "Q4_0", 22528}) + ","
            + FakeEngine::modelJson("p.gguf", 10, {"clip", 0, 844288, "Q8_0", 0}, true) + "]";
        engine().setState(FakeEngine::stateJson({}, false, models));
        QVERIFY(setup().roundTrip());
        QAbstractItemModel *list = store().modelList();
        const auto role = [list](int row, int role) { return list->index(row, 0).data(role).toString(); };
        QCOMPARE(role(0, LocalModelListModel::DetailsRole),
                 QStringLiteral("llama \u00b7 1.1B \u00b7 Q4_0 \u00b7 128K context"));
        QCOMPARE(role(0, LocalModelListModel::KvCacheRole), QStringLiteral("KV cache for 4K context: 92.3 MB"));
        QCOMPARE(role(1, LocalModelListModel::DetailsRole), QStringLiteral("clip \u00b7 844K \u00b7 Q8_0"));
        QCOMPARE(role(1, LocalModelListModel::KvCacheRole), QString());

        QSignalSpy changed(list, &QAbstractItemModel::dataChanged);
        store().setContextChoice(0);
        QCOMPARE(changed.size(), 1);
        QCOMPARE(role(0, LocalModelListModel::KvCacheRole), QStringLiteral("KV cache for 128K context: 2.95 GB"));
        // The same status again changes no row.
        QVERIFY(setup().roundTrip());
        QCOMPARE(changed.size(), 1);
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
