#include "PlatformText.h"
#include "StoreTestCase.h"

#include <QSignalSpy>
#include <QTcpServer>
#include <QtTest>

// The store's JSON calls and the status call, against a stand-in engine.
class ClientTest : public StoreTestCase {
    Q_OBJECT

private:
    EngineReply call(const QString &path, const std::optional<QJsonObject> &body = {})
    {
        std::optional<EngineReply> result;
        store().request(path, body, [&](const EngineReply &reply) { result = reply; });
        if (!QTest::qWaitFor([&] { return result.has_value(); }, 5000))
            return EngineReply{{}, EngineFailure{EngineFailure::Kind::Transport, "no answer"}};
        return *result;
    }

    // The engine takes every load and never answers it.
    void makeLoadsSilent() { engine().route("POST", "/api/load", FakeResponse::silent()); }

private slots:
    void everyCallCarriesBothHeaders()
    {
        engine().route("POST", "/api/load", FakeResponse::json(200, "{}"));
        engine().setState(FakeEngine::stateJson());

        QVERIFY(call("api/state").ok());
        QVERIFY(call("api/load", QJsonObject{{"name", "m.gguf"}}).ok());
        const auto requests = engine().requests();
        QCOMPARE(requests.size(), 2);
        QCOMPARE(requests.at(0).method, QByteArray("GET"));
        QCOMPARE(requests.at(0).path, QByteArray("/api/state"));
        QVERIFY(requests.at(0).body.isEmpty());
        QCOMPARE(requests.at(1).method, QByteArray("POST"));
        QCOMPARE(requests.at(1).body, QByteArray(R"({"name":"m.gguf"})"));
        for (const RecordedRequest &request : requests) {
            QCOMPARE(request.header("Content-Type"), QByteArray("application/json"));
            QCOMPARE(request.header("X-Vorn-App"), QByteArray("1"));
        }
    }

    void aCallThatGetsNoAnswerTimesOut()
    {
        makeLoadsSilent();
        store().engine().client().setTimeouts(300, 10000);
        const EngineReply reply = call("api/load", QJsonObject{{"name", "m.gguf"}});
        QVERIFY(!reply.ok());
        QCOMPARE(reply.failure->kind, EngineFailure::Kind::Transport);
        QCOMPARE(reply.failure->message, QStringLiteral("The request timed out."));
    }

    void aCallItsCallerStopsIsCancelled()
    {
        makeLoadsSilent();
        std::optional<EngineReply> result;
        QNetworkReply *reply = store().request("api/load", QJsonObject{{"name", "m.gguf"}},
                                               [&](const EngineReply &answer) { result = answer; });
        QVERIFY(reply);
        QTRY_COMPARE(engine().countOf("/api/load"), 1);
        EngineClient::cancelRequest(reply);
        QTRY_VERIFY(result.has_value());
        QVERIFY(!result->ok());
        QCOMPARE(result->failure->kind, EngineFailure::Kind::Cancelled);
    }

    void successReturnsTheBody()
    {
        engine().route("POST", "/api/unload", FakeResponse::json(204, ""));
        engine().route("GET", "/echo", FakeResponse::json(299, "body text"));
        QVERIFY(call("api/unload", QJsonObject{}).ok());
        const EngineReply reply = call("echo");
        QVERIFY(reply.ok());
        QCOMPARE(reply.body, QByteArray("body text"));
    }

    void engineErrorTextBecomesTheMessage()
    {
        engine().route("POST", "/api/load", FakeResponse::json(500, R"({"error":"model not found","code":7})"));
        const EngineReply reply = call("api/load", QJsonObject{{"name", "x.gguf"}});
        QVERIFY(!reply.ok());
        QCOMPARE(reply.failure->message, QStringLiteral("model not found"));
        // The app's own error for an engine reply outside 2xx.
        QCOMPARE(reply.failure->kind, EngineFailure::Kind::Engine);
    }

    void otherErrorBodiesGiveTheGenericMessage_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("500 empty") << 500 << QByteArray();
        QTest::newRow("404 number") << 404 << QByteArray(R"({"error":404})");
        QTest::newRow("400 not json") << 400 << QByteArray("<html>bad</html>");
        QTest::newRow("409 array") << 409 << QByteArray(R"(["error"])");
        QTest::newRow("503 no member") << 503 << QByteArray(R"({"message":"busy"})");
        QTest::newRow("302 redirect") << 302 << QByteArray(R"({"error":"moved"})");
    }

    void otherErrorBodiesGiveTheGenericMessage()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        engine().route("GET", "/api/state", FakeResponse::json(status, body));
        const EngineReply reply = call("api/state");
        QVERIFY(!reply.ok());
        if (status == 302)
            QCOMPARE(reply.failure->message, QStringLiteral("moved"));
        else
            QCOMPARE(reply.failure->message, QStringLiteral("The engine could not complete this request."));
    }

    void beforeStartFailsWithoutTraffic()
    {
        build(FakeEngine::stateJson(), StoreFixture::Engine::None);
        const EngineReply reply = call("api/state");
        QVERIFY(!reply.ok());
        QCOMPARE(reply.failure->kind, EngineFailure::Kind::Transport);
        QCOMPARE(reply.failure->message, QStringLiteral("Could not connect to the server."));
        QVERIFY(!setup().refresh());
        QVERIFY(!store().state());
    }

    void refusedConnectionIsPassedThrough()
    {
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const quint16 port = closed.serverPort();
        closed.close();
        build(FakeEngine::stateJson(), StoreFixture::Engine::None);
        store().engine().client().setBaseURL(QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port)));
        const EngineReply reply = call("api/state");
        QVERIFY(!reply.ok());
        QCOMPARE(reply.failure->kind, EngineFailure::Kind::Transport);
        QVERIFY(!reply.failure->message.isEmpty());
    }

    void refreshAppliesStateReadyActivityAndNotifies()
    {
        engine().setState(FakeEngine::stateJson());
        int notices = 0;
        store().setOnStatusChange([&] { ++notices; });
        store().setError(QStringLiteral("earlier"));

        QVERIFY(setup().refresh());
        QVERIFY(store().state());
        QVERIFY(store().ready());
        QCOMPARE(store().activity(), PlatformText::readyActivity());
        QCOMPARE(notices, 1);
        QCOMPARE(*store().error(), QStringLiteral("earlier"));

        engine().setState(FakeEngine::stateJson("m.gguf"));
        QVERIFY(setup().refresh());
        QCOMPARE(store().activity(), QStringLiteral("Model ready"));
        QCOMPARE(store().loadedName(), QStringLiteral("m"));
        QCOMPARE(notices, 2);
    }

    void badStatusChangesNothing_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("missing members") << 200 << QByteArray(R"({"version":"1","dir":"/m"})");
        QTest::newRow("not json") << 200 << QByteArray("garbage");
        QTest::newRow("engine error") << 500 << QByteArray(R"({"error":"busy"})");
    }

    void badStatusChangesNothing()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        engine().setState(FakeEngine::stateJson("first.gguf"));
        QVERIFY(setup().refresh());
        store().engine().setActivity(QStringLiteral("marker"));
        int notices = 0;
        store().setOnStatusChange([&] { ++notices; });

        engine().route("GET", "/api/state", FakeResponse::json(status, body));
        QVERIFY(!setup().refresh());
        QCOMPARE(*store().state()->loaded, QStringLiteral("first.gguf"));
        QVERIFY(store().ready());
        QCOMPARE(store().activity(), QStringLiteral("marker"));
        QVERIFY(!store().error());
        QCOMPARE(notices, 0);
    }

    void busyStoreKeepsItsActivity()
    {
        engine().setState(FakeEngine::stateJson("m.gguf"));
        store().chat().setGenerating(true);
        store().engine().setActivity(QStringLiteral("Answering"));
        QVERIFY(setup().refresh());
        QVERIFY(store().state());
        QVERIFY(store().ready());
        QCOMPARE(store().activity(), QStringLiteral("Answering"));
        store().chat().setGenerating(false);
        store().library().setLoading(true);
        QVERIFY(setup().refresh());
        QCOMPARE(store().activity(), QStringLiteral("Answering"));
    }
};

QTEST_GUILESS_MAIN(ClientTest)
#include "ClientTest.moc"
