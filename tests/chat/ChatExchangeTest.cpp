#include "StoreTestCase.h"
#include "model/HistoryFile.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QtTest>

// Sending a prompt and streaming the reply, against a stand-in engine that reports a
// loaded model.
class ChatExchangeTest : public StoreTestCase {
    Q_OBJECT

private:
    static QByteArray delta(const QString &content) { return FakeResponse::delta(content); }

    static QByteArray roleOnly()
    {
        return R"(data: {"choices":[{"delta":{"role":"assistant"}}]})"
               "\n\n";
    }

    // The status that the next round trip brings, with the model m.gguf loaded.
    bool reportLoadedModel(bool vision = false)
    {
        engine().setState(FakeEngine::stateJson("m.gguf", vision));
        return setup().refresh() && store().hasLoadedModel();
    }

    QString lastText() { return store().messages().isEmpty() ? QString() : store().messages().last().text; }

private slots:
    void init()
    {
        StoreTestCase::init();
        QVERIFY(reportLoadedModel());
    }

    void whitespacePromptDoesNothing()
    {
        store().setPrompt(QStringLiteral("   \n "));
        store().send();
        QVERIFY(!store().generating());
        QCOMPARE(store().prompt(), QStringLiteral("   \n "));
        QVERIFY(store().messages().isEmpty());
    }

    void refusesWhileBusyOrWithoutModel()
    {
        store().engine().setState(std::nullopt);
        store().setPrompt(QStringLiteral("Hi"));
        store().send(); // no status yet: no model
        QVERIFY(store().messages().isEmpty());
        QVERIFY(reportLoadedModel());
        store().library().setLoading(true);
        store().send();
        QVERIFY(store().messages().isEmpty());
        store().library().setLoading(false);
        store().chat().setGenerating(true);
        store().send();
        QVERIFY(store().messages().isEmpty());
        QCOMPARE(store().prompt(), QStringLiteral("Hi"));
        QCOMPARE(engine().countOf("/v1/chat/completions"), 0);
    }

    void requestCarriesTheConversation()
    {
        engine().route("POST", "/v1/chat/completions",
                       FakeResponse::stream({roleOnly(), delta("Hel"), delta("lo"), "data: [DONE]\n\n"}));
        store().setTemperature(0.3);
        store().setTokenLimit(256);
        store().setPrompt(QStringLiteral("  First question \n"));
        store().send();
        QVERIFY(store().generating());
        QCOMPARE(store().prompt(), QString());
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(lastText(), QStringLiteral("Hello"));

        store().setPrompt(QStringLiteral("Second"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        const auto requests = engine().requestsTo("/v1/chat/completions");
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
        QCOMPARE(store().messages().size(), 4);
    }

    void imageWithoutPromptAsksForADescription()
    {
        QVERIFY(reportLoadedModel(true));
        engine().route("POST", "/v1/chat/completions", FakeResponse::stream({delta("A cat."), "data: [DONE]\n"}));
        store().setAttachment(QStringLiteral("data:image/png;base64,iVBORw0KGgo="));
        store().setPrompt(QStringLiteral(" "));
        store().send();
        QVERIFY(!store().attachment());
        QCOMPARE(store().messages().first().text, QStringLiteral("Describe this image."));
        QCOMPARE(*store().messages().first().image, QStringLiteral("data:image/png;base64,iVBORw0KGgo="));
        QCOMPARE(store().conversations().at(store().selectedIndex()).title, QStringLiteral("Describe this image."));
        QVERIFY(setup().waitUntilIdle());
        const QJsonArray content = engine()
                                       .requestsTo("/v1/chat/completions")
                                       .first()
                                       .json()
                                       .value("messages")
                                       .toArray()
                                       .first()
                                       .toObject()
                                       .value("content")
                                       .toArray();
        QCOMPARE(content.size(), 2);
        QCOMPARE(content.at(0).toObject().value("type").toString(), QStringLiteral("image_url"));
    }

    void titleIsTheFirstFortyCharactersOfTheFirstMessage()
    {
        engine().route("POST", "/v1/chat/completions", FakeResponse::stream({delta("ok"), "data: [DONE]\n"}));
        const QString hundred = QString(QStringLiteral("abcdefghij")).repeated(10);
        store().setPrompt(hundred);
        store().send();
        QCOMPARE(store().conversations().at(store().selectedIndex()).title, hundred.left(40));
        QVERIFY(setup().waitUntilIdle());
        store().setPrompt(QStringLiteral("Another question"));
        store().send();
        QCOMPARE(store().conversations().at(store().selectedIndex()).title, hundred.left(40));
        QVERIFY(setup().waitUntilIdle());
    }

    void titleCountsUserPerceivedCharacters()
    {
        engine().route("POST", "/v1/chat/completions", FakeResponse::stream({"data: [DONE]\n"}));
        // A family emoji is several code points but one character.
        const QString family = QStringLiteral("\U0001F468\u200D\U0001F469\u200D\U0001F467");
        store().setPrompt(family.repeated(45));
        store().send();
        QCOMPARE(store().conversations().at(store().selectedIndex()).title, family.repeated(40));
        QVERIFY(setup().waitUntilIdle());
    }

    void commentsEventNamesAndBlankLinesAreIgnored()
    {
        engine().route("POST", "/v1/chat/completions",
                       FakeResponse::stream({": keep-alive\n", "event: message\n", "\n", roleOnly(), delta("Hi"),
                                             "data:{\"choices\":[{\"delta\":{\"content\":\"no space\"}}]}\n",
                                             R"(data: {"choices":[]})"
                                             "\n",
                                             R"(data: {"choices":[{"delta":{"content":5}}]})"
                                             "\n",
                                             R"(data: [1,2])"
                                             "\n",
                                             delta("!"), "data: [DONE]\n"}));
        store().setPrompt(QStringLiteral("Hello"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(lastText(), QStringLiteral("Hi!"));
        QVERIFY(!store().error());
    }

    void linesEndingInCarriageReturnsAreRead()
    {
        QByteArray first = delta("Hel");
        first.replace("\n\n", "\r");
        QByteArray second = delta("lo");
        second.replace("\n\n", "\r\n");
        engine().route("POST", "/v1/chat/completions", FakeResponse::stream({first, second, "data: [DONE]\r\n"}));
        store().setPrompt(QStringLiteral("Hello"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(lastText(), QStringLiteral("Hello"));
    }

    void nothingIsReadAfterDone()
    {
        engine().route(
            "POST", "/v1/chat/completions",
            FakeResponse::stream({delta("Done here"), "data: [DONE]\n", delta(" and more"), "data: not json\n"}));
        store().setPrompt(QStringLiteral("Hello"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(lastText(), QStringLiteral("Done here"));
        QVERIFY(!store().error());
    }

    void streamEndingWithoutDoneSucceeds()
    {
        engine().route("POST", "/v1/chat/completions", FakeResponse::stream({delta("Partial"), delta(" but fine")}));
        store().setPrompt(QStringLiteral("Hello"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(lastText(), QStringLiteral("Partial but fine"));
        QVERIFY(!store().error());
    }

    void reasoningStreamedApartBecomesTheLeadingSection()
    {
        engine().route("POST", "/v1/chat/completions",
                       FakeResponse::stream({roleOnly(), FakeResponse::reasoningDelta("Let me"),
                                             FakeResponse::reasoningDelta(" think."), delta(""), delta("The answer"),
                                             delta(" is 4."), "data: [DONE]\n\n"}));
        store().setPrompt(QStringLiteral("2+2?"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(lastText(), QStringLiteral("<think>\nLet me think.\n</think>\n\nThe answer is 4."));
        QVERIFY(store().messages().last().thinkingSeconds.has_value());
        QVERIFY(*store().messages().last().thinkingSeconds >= 0);
        // Kept in the history with its message.
        const auto saved = HistoryFile::load(home().historyFile());
        QVERIFY(saved);
        QCOMPARE(saved->first().messages.last().text, lastText());
        QCOMPARE(saved->first().messages.last().thinkingSeconds, store().messages().last().thinkingSeconds);
    }

    void reasoningWrittenInlineIsTimedFromItsTags()
    {
        engine().route("POST", "/v1/chat/completions",
                       FakeResponse::stream({delta("\n<thi"), delta("nk>plan"), delta(" more</th"), delta("ink>\n"),
                                             delta("Done."), "data: [DONE]\n\n"}));
        store().setPrompt(QStringLiteral("Go"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(lastText(), QStringLiteral("\n<think>plan more</think>\nDone."));
        QVERIFY(store().messages().last().thinkingSeconds.has_value());
    }

    void aReplyWithoutReasoningHasNoThinkingTime()
    {
        engine().route("POST", "/v1/chat/completions",
                       FakeResponse::stream({delta("Plain <think> in the middle"), "data: [DONE]\n\n"}));
        store().setPrompt(QStringLiteral("Go"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(lastText(), QStringLiteral("Plain <think> in the middle"));
        QVERIFY(!store().messages().last().thinkingSeconds.has_value());
        QFile raw(home().historyFile());
        QVERIFY(raw.open(QIODevice::ReadOnly));
        QVERIFY(!raw.readAll().contains("thinkingSeconds"));
    }

    void aReplyThatEndsWhileReasoningKeepsItsReasoning()
    {
        engine().route("POST", "/v1/chat/completions",
                       FakeResponse::stream({FakeResponse::reasoningDelta("Hmm"), "data: [DONE]\n\n"}));
        store().setPrompt(QStringLiteral("Go"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(lastText(), QStringLiteral("<think>\nHmm"));
        QVERIFY(store().messages().last().thinkingSeconds.has_value());
    }

    void malformedEventEndsTheExchange()
    {
        engine().route("POST", "/v1/chat/completions", FakeResponse::stream({"data: {not json\n", delta("never")}));
        store().setPrompt(QStringLiteral("Hello"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        QVERIFY(store().error());
        QVERIFY(!store().error()->isEmpty());
        QCOMPARE(lastText(), QStringLiteral("The request did not complete."));
    }

    void malformedEventAfterTextKeepsThePartialReply()
    {
        engine().route("POST", "/v1/chat/completions", FakeResponse::stream({delta("Half"), "data: {oops\n"}));
        store().setPrompt(QStringLiteral("Hello"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        QVERIFY(store().error());
        QCOMPARE(lastText(), QStringLiteral("Half"));
    }

    void refusalShowsTheModelMessage()
    {
        engine().route("POST", "/v1/chat/completions",
                       FakeResponse::json(400, R"({"error":"images need a vision model"})"));
        store().setPrompt(QStringLiteral("Hello"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(*store().error(),
                 QStringLiteral("The model could not answer. Check its image support and available memory."));
        QCOMPARE(lastText(), QStringLiteral("The request did not complete."));
    }

    void droppedConnectionKeepsThePartialReply()
    {
        FakeResponse response = FakeResponse::stream({delta("Some"), delta(" text")}, 20);
        response.dropAfterParts = true;
        engine().route("POST", "/v1/chat/completions", response);
        store().setPrompt(QStringLiteral("Hello"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(lastText(), QStringLiteral("Some text"));
        QVERIFY(store().error());
    }

    void droppedConnectionBeforeTextSaysSo()
    {
        FakeResponse response;
        response.dropConnection = true;
        engine().route("POST", "/v1/chat/completions", response);
        store().setPrompt(QStringLiteral("Hello"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        QVERIFY(store().error());
        QCOMPARE(lastText(), QStringLiteral("The request did not complete."));
    }

    void stopBeforeTheFirstByte()
    {
        engine().route("POST", "/v1/chat/completions", FakeResponse::silent());
        store().setPrompt(QStringLiteral("Hello"));
        store().send();
        QTRY_COMPARE(engine().countOf("/v1/chat/completions"), 1);
        store().stop();
        QVERIFY(!store().generating());
        QCOMPARE(lastText(), QStringLiteral("Stopped."));
        QVERIFY(!store().error());
    }

    void aReplyThatNeverStartsTimesOutWithItsOwnMessage()
    {
        store().engine().client().setTimeouts(10000, 300);
        engine().route("POST", "/v1/chat/completions", FakeResponse::silent());
        store().setPrompt(QStringLiteral("Hello"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(store().error().value_or(QString()), QStringLiteral("The request timed out."));
        QCOMPARE(lastText(), QStringLiteral("The request did not complete."));
    }

    void aReplyThatStallsKeepsItsTextAndSaysItTimedOut()
    {
        store().engine().client().setTimeouts(10000, 300);
        FakeResponse stalling = FakeResponse::stream({delta("Half a")});
        stalling.parts.append({60000, delta(" reply")});
        engine().route("POST", "/v1/chat/completions", stalling);
        store().setPrompt(QStringLiteral("Hello"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(store().error().value_or(QString()), QStringLiteral("The request timed out."));
        QCOMPARE(lastText(), QStringLiteral("Half a"));
    }

    void stopRightAfterSend()
    {
        store().setPrompt(QStringLiteral("Hello"));
        store().send();
        store().stop();
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(lastText(), QStringLiteral("Stopped."));
        QVERIFY(!store().error());
    }

    void stopMidStreamKeepsTextAndStopsReadingAtOnce()
    {
        engine().route("POST", "/v1/chat/completions",
                       FakeResponse::stream({delta("Once"), delta(" upon"), delta(" a time")}, 300));
        store().setPrompt(QStringLiteral("Tell a story"));
        store().send();
        QTRY_COMPARE_WITH_TIMEOUT(lastText(), QStringLiteral("Once"), 5000);
        store().stop();
        QVERIFY(!store().generating());
        QCOMPARE(lastText(), QStringLiteral("Once"));
        // The reply is dropped at once: the engine finds its connection closed when it
        // comes to send the next piece, and nothing more reaches the message.
        QTRY_VERIFY(!store().generationTask());
        QTRY_COMPARE_WITH_TIMEOUT(engine().abandonedReplies(), 1, 3000);
        QCOMPARE(lastText(), QStringLiteral("Once"));
        QVERIFY(!store().error());
    }

    void finalStepsSaveAndFetchTheStatus()
    {
        engine().route("POST", "/v1/chat/completions", FakeResponse::stream({delta("Saved reply"), "data: [DONE]\n"}));
        const int statusCalls = engine().countOf("/api/state");
        engine().setState(FakeEngine::stateJson("m.gguf", false, "[]", "[]", 42.5, 11));
        store().setPrompt(QStringLiteral("Hello"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        const auto saved = HistoryFile::load(home().historyFile());
        QVERIFY(saved);
        QCOMPARE(saved->first().messages.last().text, QStringLiteral("Saved reply"));
        QTRY_COMPARE(engine().countOf("/api/state"), statusCalls + 1);
        QTRY_COMPARE(store().state()->last.decode_tps, 42.5);
        QCOMPARE(store().state()->last.completion_tokens, 11);
    }

    void switchingConversationFreezesTheReplyLeftBehind()
    {
        QList<QByteArray> parts{delta("one")};
        for (int index = 0; index < 6; ++index)
            parts.append(delta(" more"));
        parts.append("data: [DONE]\n");
        engine().route("POST", "/v1/chat/completions", FakeResponse::stream(parts, 150));
        const QUuid first = *store().selectedID();
        // A second conversation to move to while the reply streams.
        store().newChat();
        const QUuid second = *store().selectedID();
        store().setSelectedID(first);
        store().setPrompt(QStringLiteral("Count"));
        store().send();
        QTRY_VERIFY_WITH_TIMEOUT(lastText().startsWith(QStringLiteral("one")), 5000);
        const QString left = lastText();
        store().setSelectedID(second);
        QVERIFY(setup().waitUntilIdle());
        store().setSelectedID(first);
        QCOMPARE(lastText(), left);
        const auto saved = HistoryFile::load(home().historyFile());
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
        QList<QByteArray> parts{delta("one")};
        for (int index = 0; index < 8; ++index)
            parts.append(delta(" more"));
        parts.append("data: [DONE]\n");
        engine().route("POST", "/v1/chat/completions", FakeResponse::stream(parts, 120));

        // Another conversation with a reply of its own.
        const QUuid other = *store().selectedID();
        engine().route("POST", "/v1/chat/completions", FakeResponse::stream({delta("Other reply"), "data: [DONE]\n"}));
        store().setPrompt(QStringLiteral("Other question"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        engine().route("POST", "/v1/chat/completions", FakeResponse::stream(parts, 120));
        store().newChat();
        const QUuid own = *store().selectedID();
        QCOMPARE(store().conversations().size(), 2);

        store().setPrompt(QStringLiteral("Count"));
        store().send();
        QTRY_VERIFY_WITH_TIMEOUT(lastText().startsWith(QStringLiteral("one")), 5000);
        store().newChat();
        QCOMPARE(store().conversations().size(), 2);
        QCOMPARE(*store().selectedID(), own);

        // Away while a few more pieces arrive.
        const int sentBefore = engine().partsSent();
        store().setSelectedID(other);
        QTRY_VERIFY_WITH_TIMEOUT(engine().partsSent() >= sentBefore + 2, 5000);
        QVERIFY(store().generating());
        QCOMPARE(store().messages().size(), 2);
        QCOMPARE(lastText(), QStringLiteral("Other reply"));
        store().setSelectedID(own);
        QVERIFY(setup().waitUntilIdle());
        const QString whole = QStringLiteral("one") + QStringLiteral(" more").repeated(8);
        QCOMPARE(lastText(), whole);

        const auto saved = HistoryFile::load(home().historyFile());
        QVERIFY(saved);
        QCOMPARE(saved->size(), 2);
        for (const Conversation &conversation : *saved) {
            QCOMPARE(conversation.messages.size(), 2);
            QCOMPARE(conversation.messages.last().text, conversation.id == own ? whole : QStringLiteral("Other reply"));
        }
    }

    void noEngineAddressLeavesTheReplyEmpty()
    {
        build(FakeEngine::stateJson(), StoreFixture::Engine::None);
        EngineState state;
        state.loaded = QStringLiteral("m.gguf");
        store().engine().setState(state);
        store().setPrompt(QStringLiteral("Hello"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(store().messages().size(), 2);
        QCOMPARE(lastText(), QString());
        QVERIFY(!store().error());
    }

    void unknownSelectionSendsNothing()
    {
        store().setSelectedID(QUuid::createUuid());
        store().setPrompt(QStringLiteral("Hello"));
        store().send();
        QVERIFY(!store().generating());
        QCOMPARE(store().prompt(), QStringLiteral("Hello"));
        QCOMPARE(store().conversations().first().messages.size(), 0);
    }

    void sendClearsAnEarlierError()
    {
        engine().route("POST", "/v1/chat/completions", FakeResponse::stream({"data: [DONE]\n"}));
        store().setError(QStringLiteral("old"));
        store().setPrompt(QStringLiteral("Hello"));
        store().send();
        QVERIFY(!store().error());
        QVERIFY(setup().waitUntilIdle());
    }
};

QTEST_GUILESS_MAIN(ChatExchangeTest)
#include "ChatExchangeTest.moc"
