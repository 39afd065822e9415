// The footer's context meter, the divider's place and the composer's notice, against a
// stand-in engine that counts and replies with scripted figures.
#include "StoreTestCase.h"

#include "model/HistoryFile.h"

#include <QJsonArray>
#include <QSignalSpy>
#include <QtTest>
#include <memory>

class ContextMeterTest : public StoreTestCase {
    Q_OBJECT

private:
    static constexpr int settleMs = ContextMeter::countDelayMilliseconds * 3;

    // A conversation of alternating questions and answers.
    static Conversation conversation(const QString &title, int messages)
    {
        Conversation conversation;
        conversation.title = title;
        for (int index = 0; index < messages; ++index) {
            ChatMessage message;
            message.role = index % 2 == 0 ? QStringLiteral("user") : QStringLiteral("assistant");
            message.text = QStringLiteral("%1 message %2").arg(title).arg(index);
            conversation.messages.append(message);
        }
        return conversation;
    }

    // The store after a restart with this history and a loaded model.
    void startWith(const QList<Conversation> &history)
    {
        HistoryFile::prepareFolder(home().dataFolder());
        QVERIFY(HistoryFile::save(home().historyFile(), history));
        engine().setState(FakeEngine::stateJson(QStringLiteral("m.gguf")));
        setup().restart();
        QVERIFY(setup().roundTrip());
    }

    // Answers every count with these figures.
    void countAs(qint64 tokens, qint64 size, qint64 dropped)
    {
        engine().route("POST", "/api/count", FakeResponse::count(tokens, size, dropped));
    }

    // A reply that ends with these figures.
    void replyWith(qint64 prompt, qint64 completion, qint64 size, qint64 dropped)
    {
        engine().route(
            "POST", "/v1/chat/completions",
            FakeResponse::stream({FakeResponse::delta(QStringLiteral("Hi")),
                                  FakeResponse::lastChunk(prompt, completion, size, dropped), "data: [DONE]\n\n"}));
    }

private slots:
    void init()
    {
        build(FakeEngine::stateJson(QStringLiteral("m.gguf")));
        QVERIFY(setup().roundTrip());
    }

    void nothingIsCountedOrShownWithoutAModel()
    {
        engine().setState(FakeEngine::stateJson());
        QVERIFY(setup().roundTrip());
        countAs(10, 4096, 0);
        store().setPrompt(QStringLiteral("Hello"));
        QTest::qWait(settleMs);
        QCOMPARE(engine().countOf("/api/count"), 0);
        QVERIFY(!store().contextMeterShown());
        QCOMPARE(store().contextMeterText(), QString());
    }

    void theDraftIsCountedOnceItRests()
    {
        countAs(2310, 8192, 0);
        for (const QString &text : {"H", "He", "Hel", "Hello"})
            store().setPrompt(text);
        QTRY_COMPARE(engine().countOf("/api/count"), 1);
        QTest::qWait(settleMs);
        QCOMPARE(engine().countOf("/api/count"), 1);

        const QJsonObject body = engine().requestsTo("/api/count").first().json();
        QCOMPARE(body.value("max_tokens").toInt(), 512);
        QCOMPARE(body.value("messages").toArray(), (QJsonArray{QJsonObject{{"role", "user"}, {"content", "Hello"}}}));
        QVERIFY(store().contextMeterShown());
        QCOMPARE(store().contextMeterText(), QStringLiteral("2,310 / 8,192 tokens"));
        QCOMPARE(store().contextMeterLevel(), QStringLiteral("comfortable"));
        QVERIFY(!store().draftBeyondContext());

        // The reply limit changes the room kept for the reply, so the count.
        store().setTokenLimit(1024);
        QTRY_COMPARE(engine().countOf("/api/count"), 2);
        QCOMPARE(engine().requestsTo("/api/count").last().json().value("max_tokens").toInt(), 1024);
    }

    // The system prompt goes first in a count as in a reply, and a new one is counted.
    void theSystemPromptIsCounted()
    {
        countAs(40, 8192, 0);
        store().setDefaultSystemPrompt(QStringLiteral("Be brief."));
        store().setPrompt(QStringLiteral("Hello"));
        QTRY_COMPARE(engine().countOf("/api/count"), 1);
        QCOMPARE(engine().requestsTo("/api/count").last().json().value("messages").toArray(),
                 (QJsonArray{QJsonObject{{"role", "system"}, {"content", "Be brief."}},
                             QJsonObject{{"role", "user"}, {"content", "Hello"}}}));
        store().setSystemOverride(QStringLiteral("Be very brief."));
        QTRY_COMPARE(engine().countOf("/api/count"), 2);
        QCOMPARE(engine().requestsTo("/api/count").last().json().value("messages").toArray().first().toObject(),
                 (QJsonObject{{"role", "system"}, {"content", "Be very brief."}}));
    }

    void theConversationAndAnImageAreCountedWithTheDraft()
    {
        startWith({conversation(QStringLiteral("A"), 2)});
        countAs(40, 4096, 0);
        // The conversation alone, as it is selected.
        QTRY_COMPARE(engine().countOf("/api/count"), 1);
        QCOMPARE(engine().requestsTo("/api/count").first().json().value("messages").toArray().size(), 2);

        store().setAttachment(QStringLiteral("data:image/png;base64,AAAA"));
        QTRY_COMPARE(engine().countOf("/api/count"), 2);
        const QJsonArray messages = engine().requestsTo("/api/count").last().json().value("messages").toArray();
        QCOMPARE(messages.size(), 3);
        QCOMPARE(messages.at(2).toObject(), store().chat().draftQuestion()->payload());
        QCOMPARE(store().chat().draftQuestion()->text, QStringLiteral("Describe this image."));
    }

    void aNewerCountSupersedesAnOlderOne()
    {
        auto counts = std::make_shared<int>(0);
        engine().route("POST", "/api/count", [counts](const RecordedRequest &) {
            ++*counts;
            FakeResponse answer = FakeResponse::count(*counts == 1 ? 100 : 200, 4096, 0);
            // The first answer comes late, after the second.
            if (*counts == 1)
                answer.delayMs = 2 * ContextMeter::countDelayMilliseconds;
            return answer;
        });
        store().setPrompt(QStringLiteral("First"));
        QTRY_COMPARE(engine().countOf("/api/count"), 1);
        store().setPrompt(QStringLiteral("First and second"));
        QTRY_COMPARE(store().contextMeterText(), QStringLiteral("200 / 4,096 tokens"));
        QTest::qWait(settleMs * 2);
        QCOMPARE(store().contextMeterText(), QStringLiteral("200 / 4,096 tokens"));
        QCOMPARE(engine().countOf("/api/count"), 2);
    }

    void levelsFollowTheShareAndWhatIsLeftOut()
    {
        countAs(3276, 4096, 0);
        store().setPrompt(QStringLiteral("a"));
        QTRY_COMPARE(store().contextMeterText(), QStringLiteral("3,276 / 4,096 tokens"));
        QCOMPARE(store().contextMeterLevel(), QStringLiteral("comfortable"));

        countAs(3277, 4096, 0);
        store().setPrompt(QStringLiteral("ab"));
        QTRY_COMPARE(store().contextMeterLevel(), QStringLiteral("nearlyFull"));

        countAs(3000, 4096, 1);
        store().setPrompt(QStringLiteral("abc"));
        QTRY_COMPARE(store().contextMeterLevel(), QStringLiteral("overflowing"));
        // A draft that leaves a message out, where no reply has: the notice shows.
        QVERIFY(store().draftBeyondContext());
        store().setPrompt(QString());
        QVERIFY(!store().draftBeyondContext());
    }

    void aReplyTellsTheMeterAndWhereTheModelsViewBegins()
    {
        startWith({conversation(QStringLiteral("Long"), 4), conversation(QStringLiteral("Short"), 2)});
        countAs(250, 512, 0);
        QTRY_VERIFY(store().contextMeterShown());
        replyWith(300, 10, 512, 2);
        const QUuid firstSeen = store().conversations().first().messages.at(2).id;

        store().setPrompt(QStringLiteral("Next"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        const int countsAfterReply = engine().countOf("/api/count");
        QCOMPARE(store().contextMeterText(), QStringLiteral("310 / 512 tokens"));
        QCOMPARE(store().contextMeterLevel(), QStringLiteral("overflowing"));
        QCOMPARE(store().contextStartID(), uuidText(firstSeen));
        // The reply's own figures stand: no count follows it.
        QTest::qWait(settleMs);
        QCOMPARE(engine().countOf("/api/count"), countsAfterReply);

        // Another conversation has its own figures and no divider; back again, the
        // divider returns.
        store().selectConversation(uuidText(store().conversations().at(1).id));
        QCOMPARE(store().contextStartID(), QString());
        QTRY_COMPARE(store().contextMeterText(), QStringLiteral("250 / 512 tokens"));
        store().selectConversation(uuidText(store().conversations().first().id));
        QCOMPARE(store().contextStartID(), uuidText(firstSeen));

        // A draft that leaves out no more than the reply did brings no notice; one that
        // leaves out more does, until it is gone.
        countAs(400, 512, 2);
        store().setPrompt(QStringLiteral("Short question"));
        QTRY_COMPARE(store().contextMeterText(), QStringLiteral("400 / 512 tokens"));
        QVERIFY(!store().draftBeyondContext());
        countAs(380, 512, 4);
        QSignalSpy changed(&store(), &EngineStore::contextMeterChanged);
        store().setPrompt(QStringLiteral("A much longer question"));
        QTRY_VERIFY(store().draftBeyondContext());
        QVERIFY(!changed.isEmpty());
        store().setPrompt(QString());
        QVERIFY(!store().draftBeyondContext());

        // A reply that saw everything takes the divider away.
        replyWith(100, 5, 512, 0);
        store().setPrompt(QStringLiteral("Again"));
        store().send();
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(store().contextStartID(), QString());
        QCOMPARE(store().contextMeterLevel(), QStringLiteral("comfortable"));
    }

    void anOlderEngineShowsNoMeterAndNoError()
    {
        // No counting: the route is missing (404).
        store().setPrompt(QStringLiteral("Hello"));
        QTRY_COMPARE(engine().countOf("/api/count"), 1);
        QTest::qWait(settleMs);
        QVERIFY(!store().contextMeterShown());
        QVERIFY(!store().error());

        // A reply without context figures is counted after it ends.
        engine().route("POST", "/v1/chat/completions",
                       FakeResponse::stream({FakeResponse::delta(QStringLiteral("Hi")), "data: [DONE]\n\n"}));
        countAs(20, 4096, 0);
        store().send();
        QVERIFY(setup().waitUntilIdle());
        QTRY_COMPARE(store().contextMeterText(), QStringLiteral("20 / 4,096 tokens"));
        QCOMPARE(store().contextStartID(), QString());
    }

    void anotherModelOrContextStartsAfresh()
    {
        countAs(50, 4096, 0);
        store().setPrompt(QStringLiteral("Hello"));
        QTRY_VERIFY(store().contextMeterShown());

        // Unloaded: nothing shows and nothing is counted.
        engine().setState(FakeEngine::stateJson());
        QVERIFY(setup().roundTrip());
        QVERIFY(!store().contextMeterShown());
        const int counts = engine().countOf("/api/count");
        store().setPrompt(QStringLiteral("Hello again"));
        QTest::qWait(settleMs);
        QCOMPARE(engine().countOf("/api/count"), counts);

        // Loaded with a new context: counted again.
        countAs(50, 8192, 0);
        engine().setState(
            FakeEngine::stateJson(QStringLiteral("m.gguf"), false, "[]", "[]", 0, 0, QStringLiteral("cpu"), 8192));
        QVERIFY(setup().roundTrip());
        QTRY_COMPARE(store().contextMeterText(), QStringLiteral("50 / 8,192 tokens"));
    }
};

QTEST_MAIN(ContextMeterTest)
#include "ContextMeterTest.moc"
