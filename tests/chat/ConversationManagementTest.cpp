#include "StoreTestCase.h"
#include "chat/ConversationListModel.h"
#include "model/HistoryFile.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QSignalSpy>
#include <QtTest>

// Renaming, deleting and taking it back, pinning, system prompts, regenerating and
// editing a question, through the store, against a stand-in engine with a model loaded.
class ConversationManagementTest : public StoreTestCase {
    Q_OBJECT

private:
    QList<QUuid> ids()
    {
        QList<QUuid> result;
        for (const Conversation &conversation : store().conversations())
            result.append(conversation.id);
        return result;
    }

    QList<QUuid> savedIds()
    {
        QList<QUuid> result;
        const auto saved = HistoryFile::load(home().historyFile());
        for (const Conversation &conversation : saved.value_or(QList<Conversation>()))
            result.append(conversation.id);
        return result;
    }

    const Conversation &conversation(const QUuid &id)
    {
        for (const Conversation &conversation : store().conversations()) {
            if (conversation.id == id)
                return conversation;
        }
        qFatal("No such conversation");
    }

    // Three conversations, newest first, the newest selected.
    QList<QUuid> three()
    {
        store().newChat();
        store().newChat();
        return ids();
    }

    // Sends text and waits for the reply, which says reply.
    bool ask(const QString &text, const QByteArray &reply)
    {
        engine().route("POST", "/v1/chat/completions",
                       FakeResponse::stream({FakeResponse::delta(reply), "data: [DONE]\n"}));
        store().setPrompt(text);
        store().send();
        return store().generating() && setup().waitUntilIdle();
    }

    // The messages of the last chat request, as sent.
    QJsonArray lastSentMessages()
    {
        const auto requests = engine().requestsTo("/v1/chat/completions");
        return requests.isEmpty() ? QJsonArray() : requests.last().json().value("messages").toArray();
    }

    static QJsonObject sent(const QString &role, const QString &content)
    {
        return QJsonObject{{"role", role}, {"content", content}};
    }

    QStringList texts()
    {
        QStringList result;
        for (const ChatMessage &message : store().messages())
            result.append(message.text);
        return result;
    }

    static QString idOf(const QUuid &id) { return uuidText(id); }

private slots:
    void init()
    {
        StoreTestCase::init();
        engine().setState(FakeEngine::stateJson("m.gguf", true));
        QVERIFY(setup().refresh() && store().hasLoadedModel());
    }

    // --- renaming ----------------------------------------------------------------------

    void renameKeepsTheTitleOnOneLineAndSaves_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("title");
        QTest::newRow("plain") << QStringLiteral("Trip planning") << QStringLiteral("Trip planning");
        QTest::newRow("emoji") << QStringLiteral("  \U0001F389 Party \U0001F469\u200D\U0001F469\u200D\U0001F467 ")
                               << QStringLiteral("\U0001F389 Party \U0001F469\u200D\U0001F469\u200D\U0001F467");
        QTest::newRow("right to left") << QStringLiteral("\u05E9\u05DC\u05D5\u05DD \u05E2\u05D5\u05DC\u05DD 42")
                                       << QStringLiteral("\u05E9\u05DC\u05D5\u05DD \u05E2\u05D5\u05DC\u05DD 42");
        QTest::newRow("arabic") << QStringLiteral("\u0645\u0631\u062D\u0628\u0627")
                                << QStringLiteral("\u0645\u0631\u062D\u0628\u0627");
        QTest::newRow("two lines") << QStringLiteral("First\nsecond\r\n") << QStringLiteral("First second");
    }

    void renameKeepsTheTitleOnOneLineAndSaves()
    {
        QFETCH(QString, typed);
        QFETCH(QString, title);
        const QUuid id = ids().first();
        QSignalSpy changed(store().conversationList(), &QAbstractItemModel::dataChanged);
        store().renameConversation(idOf(id), typed);
        QCOMPARE(conversation(id).title, title);
        QCOMPARE(changed.count(), 1);
        QCOMPARE(store()
                     .conversationList()
                     ->data(store().conversationList()->index(0), ConversationListModel::TitleRole)
                     .toString(),
                 title);
        const auto saved = HistoryFile::load(home().historyFile());
        QVERIFY(saved);
        QCOMPARE(saved->first().title, title);
    }

    void anEmptyTitleKeepsTheOldOne()
    {
        const QUuid id = ids().first();
        store().renameConversation(idOf(id), QStringLiteral("Kept"));
        for (const QString &empty : {QString(), QStringLiteral("   "), QStringLiteral("\n\t \u3000")})
            store().renameConversation(idOf(id), empty);
        QCOMPARE(conversation(id).title, QStringLiteral("Kept"));
        store().renameConversation(QStringLiteral("not an id"), QStringLiteral("Other"));
        QCOMPARE(conversation(id).title, QStringLiteral("Kept"));
        QCOMPARE(HistoryFile::load(home().historyFile())->first().title, QStringLiteral("Kept"));
    }

    // --- deleting and taking it back ------------------------------------------------------

    void deletingTheSelectedSelectsTheRowBelowAndUndoPutsItBack()
    {
        const QList<QUuid> before = three();
        store().setSelectedID(before.at(1));
        QSignalSpy undoChanged(&store(), &EngineStore::undoChanged);
        store().deleteConversation(idOf(before.at(1)));
        QCOMPARE(ids(), (QList<QUuid>{before.at(0), before.at(2)}));
        QCOMPARE(*store().selectedID(), before.at(2));
        QCOMPARE(savedIds(), ids());
        QVERIFY(store().canUndo());
        QCOMPARE(store().undoText(), QStringLiteral("Deleted \u201cNew conversation\u201d"));
        QCOMPARE(undoChanged.count(), 1);

        store().undo();
        QCOMPARE(ids(), before);
        QCOMPARE(*store().selectedID(), before.at(1));
        QCOMPARE(savedIds(), before);
        QVERIFY(!store().canUndo());
        store().undo(); // nothing left to take back
        QCOMPARE(ids(), before);
    }

    void deletingTheLastRowSelectsTheOneAbove()
    {
        const QList<QUuid> before = three();
        store().setSelectedID(before.at(2));
        store().deleteConversation(idOf(before.at(2)));
        QCOMPARE(ids(), before.mid(0, 2));
        QCOMPARE(*store().selectedID(), before.at(1));
    }

    void deletingAnotherRowKeepsTheSelection()
    {
        const QList<QUuid> before = three();
        store().deleteConversation(idOf(before.at(2)));
        QCOMPARE(*store().selectedID(), before.at(0));
        store().undo();
        QCOMPARE(ids(), before);
        QCOMPARE(*store().selectedID(), before.at(0));
    }

    // The list is never empty: a new conversation takes the last one's place, and goes
    // again when the deletion is taken back.
    void deletingTheOnlyConversationLeavesANewOne()
    {
        QVERIFY(ask(QStringLiteral("Only question"), "Only answer"));
        const QUuid only = ids().first();
        store().deleteConversation(idOf(only));
        QCOMPARE(store().conversations().size(), 1);
        QVERIFY(store().conversations().first().id != only);
        QCOMPARE(store().conversations().first().title, QStringLiteral("New conversation"));
        QCOMPARE(*store().selectedID(), store().conversations().first().id);
        QVERIFY(store().messages().isEmpty());
        QCOMPARE(savedIds(), ids());

        store().undo();
        QCOMPARE(ids(), QList<QUuid>{only});
        QCOMPARE(*store().selectedID(), only);
        QCOMPARE(texts(), (QStringList{"Only question", "Only answer"}));
        QCOMPARE(savedIds(), ids());
    }

    // The conversation a reply is being written into stays; others may go.
    void aConversationBeingAnsweredCannotBeDeleted()
    {
        const QList<QUuid> before = three();
        engine().route("POST", "/v1/chat/completions", FakeResponse::silent());
        store().setPrompt(QStringLiteral("Slow"));
        store().send();
        QVERIFY(store().generating());
        store().deleteConversation(idOf(before.at(0)));
        QCOMPARE(ids(), before);
        QVERIFY(!store().canUndo());
        store().deleteConversation(idOf(before.at(1)));
        QCOMPARE(ids(), (QList<QUuid>{before.at(0), before.at(2)}));
        QCOMPARE(*store().selectedID(), before.at(0));
        store().stop();
        QVERIFY(setup().waitUntilIdle());
    }

    void theUndoIsForgottenAfterAWhile()
    {
        const QList<QUuid> before = three();
        store().setUndoTimeout(50);
        store().deleteConversation(idOf(before.at(1)));
        QVERIFY(store().canUndo());
        QTRY_VERIFY(!store().canUndo());
        store().undo();
        QCOMPARE(ids().size(), 2);
    }

    void dismissingForgetsTheUndo()
    {
        const QList<QUuid> before = three();
        store().deleteConversation(idOf(before.at(1)));
        store().dismissUndo();
        QVERIFY(!store().canUndo());
        QCOMPARE(store().undoText(), QString());
        store().undo();
        QCOMPARE(ids().size(), 2);
    }

    // --- pinning -----------------------------------------------------------------------

    void pinnedConversationsStayOnTopInTheirOwnOrder()
    {
        store().newChat();
        store().newChat();
        store().newChat();
        const QList<QUuid> before = ids(); // d c b a
        store().setPinned(idOf(before.at(2)), true);
        QCOMPARE(ids(), (QList<QUuid>{before.at(2), before.at(0), before.at(1), before.at(3)}));
        store().setPinned(idOf(before.at(3)), true);
        QCOMPARE(ids(), (QList<QUuid>{before.at(2), before.at(3), before.at(0), before.at(1)}));
        QVERIFY(conversation(before.at(3)).pinned);
        ConversationListModel *list = store().conversationList();
        QVERIFY(list->data(list->index(1), ConversationListModel::PinnedRole).toBool());
        QVERIFY(!list->data(list->index(2), ConversationListModel::PinnedRole).toBool());
        QCOMPARE(savedIds(), ids());

        // A new conversation goes below the pinned ones.
        store().newChat();
        const QUuid newest = *store().selectedID();
        QCOMPARE(ids().at(2), newest);

        // Unpinned: back to the top of the others.
        store().setPinned(idOf(before.at(2)), false);
        QCOMPARE(ids(), (QList<QUuid>{before.at(3), before.at(2), newest, before.at(0), before.at(1)}));
        QVERIFY(!conversation(before.at(2)).pinned);

        const QList<QUuid> order = ids();
        setup().restart();
        QCOMPARE(ids(), order);
        QVERIFY(conversation(before.at(3)).pinned);
        QVERIFY(!conversation(before.at(2)).pinned);
    }

    // A pinned conversation deleted and taken back is pinned again, at its place.
    void undoPutsAPinnedConversationBackAmongThePinned()
    {
        const QList<QUuid> before = three();
        store().setPinned(idOf(before.at(1)), true);
        store().setPinned(idOf(before.at(2)), true);
        const QList<QUuid> pinned = ids();
        store().deleteConversation(idOf(before.at(1)));
        store().undo();
        QCOMPARE(ids(), pinned);
        QVERIFY(conversation(before.at(1)).pinned);
    }

    // --- the system prompt -------------------------------------------------------------

    void theDefaultSystemPromptIsSentFirst()
    {
        QVERIFY(ask(QStringLiteral("No prompt yet"), "ok"));
        QCOMPARE(lastSentMessages(), (QJsonArray{sent("user", "No prompt yet")}));

        store().setDefaultSystemPrompt(QStringLiteral("Answer like a pirate.\nBe brief."));
        QCOMPARE(store().systemPrompt(), QStringLiteral("Answer like a pirate.\nBe brief."));
        QVERIFY(!store().hasSystemOverride());
        QVERIFY(ask(QStringLiteral("Hello"), "Ahoy"));
        QCOMPARE(lastSentMessages(),
                 (QJsonArray{sent("system", "Answer like a pirate.\nBe brief."), sent("user", "No prompt yet"),
                             sent("assistant", "ok"), sent("user", "Hello")}));
        // Never part of the transcript or the history.
        QCOMPARE(texts(), (QStringList{"No prompt yet", "ok", "Hello", "Ahoy"}));
        QVERIFY(!HistoryFile::load(home().historyFile())->first().system);

        // Kept in the settings.
        setup().restart();
        QCOMPARE(store().defaultSystemPrompt(), QStringLiteral("Answer like a pirate.\nBe brief."));
    }

    void aConversationsOwnPromptReplacesTheDefault()
    {
        store().setDefaultSystemPrompt(QStringLiteral("Default"));
        QSignalSpy changed(&store(), &EngineStore::systemPromptChanged);
        store().setSystemOverride(QStringLiteral("Only French"));
        QVERIFY(store().hasSystemOverride());
        QCOMPARE(store().systemPrompt(), QStringLiteral("Only French"));
        QVERIFY(changed.count() >= 1);
        QVERIFY(ask(QStringLiteral("Hi"), "Salut"));
        QCOMPARE(lastSentMessages(), (QJsonArray{sent("system", "Only French"), sent("user", "Hi")}));
        QCOMPARE(*HistoryFile::load(home().historyFile())->first().system, QStringLiteral("Only French"));

        // Another conversation still has the default.
        const QUuid first = *store().selectedID();
        store().newChat();
        QCOMPARE(store().systemPrompt(), QStringLiteral("Default"));
        QVERIFY(!store().hasSystemOverride());
        QVERIFY(ask(QStringLiteral("Other"), "ok"));
        QCOMPARE(lastSentMessages().first().toObject(), sent("system", "Default"));

        // An empty prompt of its own sends none.
        store().setSelectedID(first);
        store().setSystemOverride(QString());
        QVERIFY(store().hasSystemOverride());
        QVERIFY(ask(QStringLiteral("Again"), "ok"));
        QCOMPARE(lastSentMessages().first().toObject(), sent("user", "Hi"));

        // "Use default" takes the conversation's own away.
        store().clearSystemOverride();
        QVERIFY(!store().hasSystemOverride());
        QCOMPARE(store().systemPrompt(), QStringLiteral("Default"));
        QVERIFY(!HistoryFile::load(home().historyFile())->at(1).system);
        QVERIFY(ask(QStringLiteral("Last"), "ok"));
        QCOMPARE(lastSentMessages().first().toObject(), sent("system", "Default"));
    }

    void aBlankPromptSendsNone()
    {
        store().setDefaultSystemPrompt(QStringLiteral("  \n "));
        QVERIFY(ask(QStringLiteral("Hi"), "ok"));
        QCOMPARE(lastSentMessages(), (QJsonArray{sent("user", "Hi")}));
    }

    // --- regenerating ------------------------------------------------------------------

    void regenerateReplacesTheLastReply()
    {
        store().setDefaultSystemPrompt(QStringLiteral("Be kind."));
        QVERIFY(ask(QStringLiteral("First"), "One"));
        QVERIFY(ask(QStringLiteral("Second"), "Two"));
        QVERIFY(store().canRegenerate());
        engine().route("POST", "/v1/chat/completions",
                       FakeResponse::stream({FakeResponse::delta("Deux"), "data: [DONE]\n"}));
        store().regenerate();
        QVERIFY(store().generating());
        QVERIFY(!store().canRegenerate());
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(lastSentMessages(),
                 (QJsonArray{sent("system", "Be kind."), sent("user", "First"), sent("assistant", "One"),
                             sent("user", "Second")}));
        QCOMPARE(texts(), (QStringList{"First", "One", "Second", "Deux"}));
        QCOMPARE(HistoryFile::load(home().historyFile())->first().messages.last().text, QStringLiteral("Deux"));
        QVERIFY(store().canRegenerate());
    }

    void regenerateNeedsAModelAndAReply()
    {
        store().regenerate(); // nothing to regenerate
        QCOMPARE(engine().countOf("/v1/chat/completions"), 0);
        QVERIFY(ask(QStringLiteral("Hi"), "Hello"));
        engine().setState(FakeEngine::stateJson());
        QVERIFY(setup().refresh());
        QVERIFY(!store().canRegenerate());
        store().regenerate();
        QCOMPARE(engine().countOf("/v1/chat/completions"), 1);
        QCOMPARE(texts(), (QStringList{"Hi", "Hello"}));
    }

    // --- editing a question ------------------------------------------------------------

    void anEditedQuestionReplacesItAndEverythingAfter()
    {
        QVERIFY(ask(QStringLiteral("Capital of Frnace?"), "Which country?"));
        QVERIFY(ask(QStringLiteral("France"), "Paris"));
        const QList<ChatMessage> before = store().messages();
        const QString oldTitle = store().conversations().first().title;
        store().setPrompt(QStringLiteral("a draft"));

        store().beginEdit(idOf(before.at(0).id));
        QVERIFY(store().editing());
        QCOMPARE(store().prompt(), QStringLiteral("Capital of Frnace?"));
        store().setPrompt(QStringLiteral("Capital of France?"));
        engine().route("POST", "/v1/chat/completions",
                       FakeResponse::stream({FakeResponse::delta("Paris."), "data: [DONE]\n"}));
        store().send();
        QVERIFY(!store().editing());
        QCOMPARE(store().prompt(), QStringLiteral("a draft"));
        QVERIFY(setup().waitUntilIdle());
        QCOMPARE(lastSentMessages(), (QJsonArray{sent("user", "Capital of France?")}));
        QCOMPARE(texts(), (QStringList{"Capital of France?", "Paris."}));
        QCOMPARE(store().conversations().first().title, QStringLiteral("Capital of France?"));
        QCOMPARE(HistoryFile::load(home().historyFile())->first().messages.size(), 2);
        QVERIFY(store().canUndo());
        QCOMPARE(store().undoText(), QStringLiteral("Message edited"));

        store().undo();
        QCOMPARE(texts(), (QStringList{"Capital of Frnace?", "Which country?", "France", "Paris"}));
        QCOMPARE(store().conversations().first().title, oldTitle);
        QCOMPARE(HistoryFile::load(home().historyFile())->first().messages.size(), 4);
    }

    void editingALaterQuestionKeepsWhatCameBefore()
    {
        QVERIFY(ask(QStringLiteral("One"), "1"));
        QVERIFY(ask(QStringLiteral("Two"), "2"));
        QVERIFY(ask(QStringLiteral("Three"), "3"));
        store().beginEdit(idOf(store().messages().at(2).id));
        store().setPrompt(QStringLiteral("Zwei"));
        QVERIFY(ask(QStringLiteral("Zwei"), "zwei"));
        QCOMPARE(lastSentMessages(), (QJsonArray{sent("user", "One"), sent("assistant", "1"), sent("user", "Zwei")}));
        QCOMPARE(texts(), (QStringList{"One", "1", "Zwei", "zwei"}));
        QCOMPARE(store().conversations().first().title, QStringLiteral("One"));
    }

    void leavingAnEditChangesNothing()
    {
        QVERIFY(ask(QStringLiteral("Question"), "Answer"));
        store().setPrompt(QStringLiteral("half typed"));
        store().beginEdit(idOf(store().messages().at(0).id));
        store().setPrompt(QStringLiteral("changed my mind"));
        store().cancelEdit();
        QVERIFY(!store().editing());
        QCOMPARE(store().prompt(), QStringLiteral("half typed"));
        QCOMPARE(texts(), (QStringList{"Question", "Answer"}));
        QVERIFY(!store().canUndo());
        // Answers cannot be edited.
        store().beginEdit(idOf(store().messages().at(1).id));
        QVERIFY(!store().editing());
    }

    // Up in an empty composer: the last question, with its image.
    void theLastQuestionComesBackWithItsImage()
    {
        QVERIFY(ask(QStringLiteral("First"), "1"));
        const QString image = QStringLiteral("data:image/png;base64,iVBORw0KGgo=");
        store().setAttachment(image);
        QVERIFY(ask(QStringLiteral("What is this?"), "A cat"));
        store().setPrompt(QStringLiteral("typed"));
        store().editLastQuestion(); // not over a draft
        QVERIFY(!store().editing());
        store().setPrompt(QString());
        store().editLastQuestion();
        QVERIFY(store().editing());
        QCOMPARE(store().prompt(), QStringLiteral("What is this?"));
        QCOMPARE(store().attachment(), std::optional<QString>(image));
        store().cancelEdit();
        QCOMPARE(store().prompt(), QString());
        QVERIFY(!store().attachment());
    }

    // Another conversation selected: the edit ends and the draft comes back.
    void anEditEndsWithItsConversation()
    {
        QVERIFY(ask(QStringLiteral("Question"), "Answer"));
        store().beginEdit(idOf(store().messages().at(0).id));
        store().newChat();
        QVERIFY(!store().editing());
        QVERIFY(store().messages().isEmpty());
    }
};

QTEST_GUILESS_MAIN(ConversationManagementTest)
#include "ConversationManagementTest.moc"
