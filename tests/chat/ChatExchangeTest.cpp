#include "FakeEngine.h"
#include "TestHome.h"
#include "engine/EngineStore.h"
#include "model/HistoryFile.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QtTest>

// Sending a prompt and streaming the reply, against a stand-in engine.
class ChatExchangeTest : public QObject {
    Q_OBJECT

private:
    static QByteArray delta(const QString &content) { return FakeResponse::delta(content); }

    static QByteArray roleOnly() { return R"(data: {"choices":[{"delta":{"role":"assistant"}}]})" "\n\n"; }

    // A store whose engine reports a loaded model.
    static void connect(EngineStore &store, FakeEngine &engine, bool vision = false)
    {
        QVERIFY(engine.listen());
        engine.setState(FakeEngine::stateJson("m.gguf", vision));
        store.connectForTesting(engine.baseURL());
        bool applied = false;
        store.refresh([&](bool ok) { applied = ok; });
        QTRY_VERIFY(applied);
        QVERIFY(store.hasLoadedModel());
    }

    static QString lastText(const EngineStore &store) { return store.messages().isEmpty() ? QString() : store.messages().last().text; }

    static void waitUntilIdle(EngineStore &store) { QTRY_VERIFY_WITH_TIMEOUT(!store.generating(), 10000); }

private slots:
    void whitespacePromptDoesNothing()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        store.setPrompt(QStringLiteral("   \n "));
        store.send();
        QVERIFY(!store.generating());
        QCOMPARE(store.prompt(), QStringLiteral("   \n "));
        QVERIFY(store.messages().isEmpty());
    }

    void refusesWhileBusyOrWithoutModel()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        store.setPrompt(QStringLiteral("Hi"));
        store.send();  // no status yet: no model
        QVERIFY(store.messages().isEmpty());
        connect(store, engine);
        store.setLoading(true);
        store.send();
        QVERIFY(store.messages().isEmpty());
        store.setLoading(false);
        store.setGenerating(true);
        store.send();
        QVERIFY(store.messages().isEmpty());
        QCOMPARE(store.prompt(), QStringLiteral("Hi"));
        QCOMPARE(engine.countOf("/v1/chat/completions"), 0);
    }

    void requestCarriesTheConversation()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        engine.route("POST", "/v1/chat/completions", FakeResponse::stream({roleOnly(), delta("Hel"), delta("lo"), "data: [DONE]\n\n"}));
        store.setTemperature(0.3);
        store.setTokenLimit(256);
        store.setPrompt(QStringLiteral("  First question \n"));
        store.send();
        QVERIFY(store.generating());
        QCOMPARE(store.prompt(), QString());
        waitUntilIdle(store);
        QCOMPARE(lastText(store), QStringLiteral("Hello"));

        store.setPrompt(QStringLiteral("Second"));
        store.send();
        waitUntilIdle(store);
        const auto requests = engine.requestsTo("/v1/chat/completions");
        QCOMPARE(requests.size(), 2);
        const RecordedRequest &second = requests.at(1);
        QCOMPARE(second.method, QByteArray("POST"));
        QCOMPARE(second.header("Content-Type"), QByteArray("application/json"));
        QVERIFY(second.header("X-Vorn-App").isEmpty());
        const QJsonObject body = second.json();
        QCOMPARE(body.keys(), (QStringList{"max_tokens", "messages", "stream", "temperature"}));
        QCOMPARE(body.value("stream").toBool(), true);
        QCOMPARE(body.value("temperature").toDouble(), 0.3);
        QCOMPARE(body.value("max_tokens").toInt(), 256);
        QVERIFY(!second.body.contains('\n'));
        const QJsonArray messages = body.value("messages").toArray();
        QCOMPARE(messages.size(), 3);
        QCOMPARE(messages.at(0).toObject(), (QJsonObject{{"role", "user"}, {"content", "First question"}}));
        QCOMPARE(messages.at(1).toObject(), (QJsonObject{{"role", "assistant"}, {"content", "Hello"}}));
        QCOMPARE(messages.at(2).toObject(), (QJsonObject{{"role", "user"}, {"content", "Second"}}));
        QCOMPARE(store.messages().size(), 4);
    }

    void imageWithoutPromptAsksForADescription()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine, true);
        engine.route("POST", "/v1/chat/completions", FakeResponse::stream({delta("A cat."), "data: [DONE]\n"}));
        store.setAttachment(QStringLiteral("data:image/png;base64,iVBORw0KGgo="));
        store.setPrompt(QStringLiteral(" "));
        store.send();
        QVERIFY(!store.attachment());
        QCOMPARE(store.messages().first().text, QStringLiteral("Describe this image."));
        QCOMPARE(*store.messages().first().image, QStringLiteral("data:image/png;base64,iVBORw0KGgo="));
        QCOMPARE(store.conversations().at(store.selectedIndex()).title, QStringLiteral("Describe this image."));
        waitUntilIdle(store);
        const QJsonArray content = engine.requestsTo("/v1/chat/completions").first().json()
                                       .value("messages").toArray().first().toObject().value("content").toArray();
        QCOMPARE(content.size(), 2);
        QCOMPARE(content.at(0).toObject().value("type").toString(), QStringLiteral("image_url"));
    }

    void titleIsTheFirstFortyCharactersOfTheFirstMessage()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        engine.route("POST", "/v1/chat/completions", FakeResponse::stream({delta("ok"), "data: [DONE]\n"}));
        const QString hundred = QString(QStringLiteral("abcdefghij")).repeated(10);
        store.setPrompt(hundred);
        store.send();
        QCOMPARE(store.conversations().at(store.selectedIndex()).title, hundred.left(40));
        waitUntilIdle(store);
        store.setPrompt(QStringLiteral("Another question"));
        store.send();
        QCOMPARE(store.conversations().at(store.selectedIndex()).title, hundred.left(40));
        waitUntilIdle(store);
    }

    void titleCountsUserPerceivedCharacters()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        engine.route("POST", "/v1/chat/completions", FakeResponse::stream({"data: [DONE]\n"}));
        // A family emoji is several code points but one character.
        const QString family = QStringLiteral("\U0001F468\u200D\U0001F469\u200D\U0001F467");
        store.setPrompt(family.repeated(45));
        store.send();
        QCOMPARE(store.conversations().at(store.selectedIndex()).title, family.repeated(40));
        waitUntilIdle(store);
    }

    void commentsEventNamesAndBlankLinesAreIgnored()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        engine.route("POST", "/v1/chat/completions",
                     FakeResponse::stream({": keep-alive\n", "event: message\n", "\n", roleOnly(), delta("Hi"),
                                           "data:{\"choices\":[{\"delta\":{\"content\":\"no space\"}}]}\n",
                                           R"(data: {"choices":[]})" "\n", R"(data: {"choices":[{"delta":{"content":5}}]})" "\n",
                                           R"(data: [1,2])" "\n", delta("!"), "data: [DONE]\n"}));
        store.setPrompt(QStringLiteral("Hello"));
        store.send();
        waitUntilIdle(store);
        QCOMPARE(lastText(store), QStringLiteral("Hi!"));
        QVERIFY(!store.error());
    }

    void linesEndingInCarriageReturnsAreRead()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        QByteArray first = delta("Hel");
        first.replace("\n\n", "\r");
        QByteArray second = delta("lo");
        second.replace("\n\n", "\r\n");
        engine.route("POST", "/v1/chat/completions", FakeResponse::stream({first, second, "data: [DONE]\r\n"}));
        store.setPrompt(QStringLiteral("Hello"));
        store.send();
        waitUntilIdle(store);
        QCOMPARE(lastText(store), QStringLiteral("Hello"));
    }

    void nothingIsReadAfterDone()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        engine.route("POST", "/v1/chat/completions",
                     FakeResponse::stream({delta("Done here"), "data: [DONE]\n", delta(" and more"), "data: not json\n"}));
        store.setPrompt(QStringLiteral("Hello"));
        store.send();
        waitUntilIdle(store);
        QCOMPARE(lastText(store), QStringLiteral("Done here"));
        QVERIFY(!store.error());
    }

    void streamEndingWithoutDoneSucceeds()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        engine.route("POST", "/v1/chat/completions", FakeResponse::stream({delta("Partial"), delta(" but fine")}));
        store.setPrompt(QStringLiteral("Hello"));
        store.send();
        waitUntilIdle(store);
        QCOMPARE(lastText(store), QStringLiteral("Partial but fine"));
        QVERIFY(!store.error());
    }

    void malformedEventEndsTheExchange()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        engine.route("POST", "/v1/chat/completions", FakeResponse::stream({"data: {not json\n", delta("never")}));
        store.setPrompt(QStringLiteral("Hello"));
        store.send();
        waitUntilIdle(store);
        QVERIFY(store.error());
        QVERIFY(!store.error()->isEmpty());
        QCOMPARE(lastText(store), QStringLiteral("The request did not complete."));
    }

    void malformedEventAfterTextKeepsThePartialReply()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        engine.route("POST", "/v1/chat/completions", FakeResponse::stream({delta("Half"), "data: {oops\n"}));
        store.setPrompt(QStringLiteral("Hello"));
        store.send();
        waitUntilIdle(store);
        QVERIFY(store.error());
        QCOMPARE(lastText(store), QStringLiteral("Half"));
    }

    void refusalShowsTheModelMessage()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        engine.route("POST", "/v1/chat/completions", FakeResponse::json(400, R"({"error":"images need a vision model"})"));
        store.setPrompt(QStringLiteral("Hello"));
        store.send();
        waitUntilIdle(store);
        QCOMPARE(*store.error(), QStringLiteral("The model could not answer. Check its image support and available memory."));
        QCOMPARE(lastText(store), QStringLiteral("The request did not complete."));
    }

    void droppedConnectionKeepsThePartialReply()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        FakeResponse response = FakeResponse::stream({delta("Some"), delta(" text")}, 20);
        response.dropAfterParts = true;
        engine.route("POST", "/v1/chat/completions", response);
        store.setPrompt(QStringLiteral("Hello"));
        store.send();
        waitUntilIdle(store);
        QCOMPARE(lastText(store), QStringLiteral("Some text"));
        QVERIFY(store.error());
    }

    void droppedConnectionBeforeTextSaysSo()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        FakeResponse response;
        response.dropConnection = true;
        engine.route("POST", "/v1/chat/completions", response);
        store.setPrompt(QStringLiteral("Hello"));
        store.send();
        waitUntilIdle(store);
        QVERIFY(store.error());
        QCOMPARE(lastText(store), QStringLiteral("The request did not complete."));
    }

    void stopBeforeTheFirstByte()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        engine.route("POST", "/v1/chat/completions", FakeResponse::silent());
        store.setPrompt(QStringLiteral("Hello"));
        store.send();
        QTRY_COMPARE(engine.countOf("/v1/chat/completions"), 1);
        store.stop();
        QVERIFY(!store.generating());
        QCOMPARE(lastText(store), QStringLiteral("Stopped."));
        QVERIFY(!store.error());
    }

    void aReplyThatNeverStartsTimesOutWithItsOwnMessage()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        store.setTimeoutsForTesting(10000, 300);
        engine.route("POST", "/v1/chat/completions", FakeResponse::silent());
        store.setPrompt(QStringLiteral("Hello"));
        store.send();
        waitUntilIdle(store);
        QCOMPARE(store.error().value_or(QString()), QStringLiteral("The request timed out."));
        QCOMPARE(lastText(store), QStringLiteral("The request did not complete."));
    }

    void aReplyThatStallsKeepsItsTextAndSaysItTimedOut()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        store.setTimeoutsForTesting(10000, 300);
        FakeResponse stalling = FakeResponse::stream({delta("Half a")});
        stalling.parts.append({60000, delta(" reply")});
        engine.route("POST", "/v1/chat/completions", stalling);
        store.setPrompt(QStringLiteral("Hello"));
        store.send();
        waitUntilIdle(store);
        QCOMPARE(store.error().value_or(QString()), QStringLiteral("The request timed out."));
        QCOMPARE(lastText(store), QStringLiteral("Half a"));
    }

    void stopRightAfterSend()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        store.setPrompt(QStringLiteral("Hello"));
        store.send();
        store.stop();
        waitUntilIdle(store);
        QCOMPARE(lastText(store), QStringLiteral("Stopped."));
        QVERIFY(!store.error());
    }

    void stopMidStreamKeepsTextAndStopsReadingAtOnce()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        engine.route("POST", "/v1/chat/completions", FakeResponse::stream({delta("Once"), delta(" upon"), delta(" a time")}, 300));
        store.setPrompt(QStringLiteral("Tell a story"));
        store.send();
        QTRY_COMPARE_WITH_TIMEOUT(lastText(store), QStringLiteral("Once"), 5000);
        store.stop();
        QVERIFY(!store.generating());
        QCOMPARE(lastText(store), QStringLiteral("Once"));
        // The reply is dropped at once: the engine finds its connection closed when it
        // comes to send the next piece, and nothing more reaches the message.
        QTRY_VERIFY(!store.generationTask());
        QTRY_COMPARE_WITH_TIMEOUT(engine.abandonedReplies(), 1, 3000);
        QCOMPARE(lastText(store), QStringLiteral("Once"));
        QVERIFY(!store.error());
    }

    void finalStepsSaveAndFetchTheStatus()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        engine.route("POST", "/v1/chat/completions", FakeResponse::stream({delta("Saved reply"), "data: [DONE]\n"}));
        const int statusCalls = engine.countOf("/api/state");
        engine.setState(FakeEngine::stateJson("m.gguf", false, "[]", "[]", 42.5, 11));
        store.setPrompt(QStringLiteral("Hello"));
        store.send();
        waitUntilIdle(store);
        const auto saved = HistoryFile::load(home.historyFile());
        QVERIFY(saved);
        QCOMPARE(saved->first().messages.last().text, QStringLiteral("Saved reply"));
        QTRY_COMPARE(engine.countOf("/api/state"), statusCalls + 1);
        QTRY_COMPARE(store.state()->last.decode_tps, 42.5);
        QCOMPARE(store.state()->last.completion_tokens, 11);
    }

    void switchingConversationFreezesTheReplyLeftBehind()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        QList<QByteArray> parts{delta("one")};
        for (int index = 0; index < 6; ++index)
            parts.append(delta(" more"));
        parts.append("data: [DONE]\n");
        engine.route("POST", "/v1/chat/completions", FakeResponse::stream(parts, 150));
        const QUuid first = *store.selectedID();
        // A second conversation to move to while the reply streams.
        store.newChat();
        const QUuid second = *store.selectedID();
        store.setSelectedID(first);
        store.setPrompt(QStringLiteral("Count"));
        store.send();
        QTRY_VERIFY_WITH_TIMEOUT(lastText(store).startsWith(QStringLiteral("one")), 5000);
        const QString left = lastText(store);
        store.setSelectedID(second);
        waitUntilIdle(store);
        store.setSelectedID(first);
        QCOMPARE(lastText(store), left);
        const auto saved = HistoryFile::load(home.historyFile());
        QVERIFY(saved);
        for (const Conversation &conversation : *saved) {
            if (conversation.id == first)
                QCOMPARE(conversation.messages.last().text, left);
        }
    }

    // The reply is written only into its own conversation: a new chat is refused while
    // it streams, another conversation is never touched, and coming back catches up.
    void aReplyOnlyEverLandsInItsOwnConversation()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        QList<QByteArray> parts{delta("one")};
        for (int index = 0; index < 8; ++index)
            parts.append(delta(" more"));
        parts.append("data: [DONE]\n");
        engine.route("POST", "/v1/chat/completions", FakeResponse::stream(parts, 120));

        // Another conversation with a reply of its own.
        const QUuid other = *store.selectedID();
        engine.route("POST", "/v1/chat/completions", FakeResponse::stream({delta("Other reply"), "data: [DONE]\n"}));
        store.setPrompt(QStringLiteral("Other question"));
        store.send();
        waitUntilIdle(store);
        engine.route("POST", "/v1/chat/completions", FakeResponse::stream(parts, 120));
        store.newChat();
        const QUuid own = *store.selectedID();
        QCOMPARE(store.conversations().size(), 2);

        store.setPrompt(QStringLiteral("Count"));
        store.send();
        QTRY_VERIFY_WITH_TIMEOUT(lastText(store).startsWith(QStringLiteral("one")), 5000);
        store.newChat();
        QCOMPARE(store.conversations().size(), 2);
        QCOMPARE(*store.selectedID(), own);

        // Away while a few more pieces arrive.
        const int sentBefore = engine.partsSent();
        store.setSelectedID(other);
        QTRY_VERIFY_WITH_TIMEOUT(engine.partsSent() >= sentBefore + 2, 5000);
        QVERIFY(store.generating());
        QCOMPARE(store.messages().size(), 2);
        QCOMPARE(lastText(store), QStringLiteral("Other reply"));
        store.setSelectedID(own);
        waitUntilIdle(store);
        const QString whole = QStringLiteral("one") + QStringLiteral(" more").repeated(8);
        QCOMPARE(lastText(store), whole);

        const auto saved = HistoryFile::load(home.historyFile());
        QVERIFY(saved);
        QCOMPARE(saved->size(), 2);
        for (const Conversation &conversation : *saved) {
            QCOMPARE(conversation.messages.size(), 2);
            QCOMPARE(conversation.messages.last().text, conversation.id == own ? whole : QStringLiteral("Other reply"));
        }
    }

    void noEngineAddressLeavesTheReplyEmpty()
    {
        TestHome home;
        EngineStore store;
        EngineState state;
        state.loaded = QStringLiteral("m.gguf");
        store.setState(state);
        store.setPrompt(QStringLiteral("Hello"));
        store.send();
        waitUntilIdle(store);
        QCOMPARE(store.messages().size(), 2);
        QCOMPARE(lastText(store), QString());
        QVERIFY(!store.error());
    }

    void unknownSelectionSendsNothing()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        store.setSelectedID(QUuid::createUuid());
        store.setPrompt(QStringLiteral("Hello"));
        store.send();
        QVERIFY(!store.generating());
        QCOMPARE(store.prompt(), QStringLiteral("Hello"));
        QCOMPARE(store.conversations().first().messages.size(), 0);
    }

    void sendClearsAnEarlierError()
    {
        TestHome home;
        FakeEngine engine;
        EngineStore store;
        connect(store, engine);
        engine.route("POST", "/v1/chat/completions", FakeResponse::stream({"data: [DONE]\n"}));
        store.setError(QStringLiteral("old"));
        store.setPrompt(QStringLiteral("Hello"));
        store.send();
        QVERIFY(!store.error());
        waitUntilIdle(store);
    }
};

QTEST_GUILESS_MAIN(ChatExchangeTest)
#include "ChatExchangeTest.moc"
