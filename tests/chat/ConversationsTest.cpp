#include "chat/Conversations.h"
#include "StoreTestCase.h"
#include "chat/ChatSession.h"
#include "chat/ConversationListModel.h"
#include "chat/MessageListModel.h"
#include "engine/EngineStore.h"
#include "model/HistoryFile.h"

#include <QSignalSpy>
#include <QtTest>

// New conversations and the selection.
class ConversationsTest : public StoreTestCase {
    Q_OBJECT

private slots:
    void init() { build(FakeEngine::stateJson(), StoreFixture::Engine::None); }

    void newChatGoesFirstSelectedAndSaved()
    {
        const QUuid original = store().conversations().first().id;
        store().setPrompt(QStringLiteral("draft"));
        store().setAttachment(QStringLiteral("data:image/png;base64,AA"));
        QSignalSpy inserted(store().conversationList(), &QAbstractItemModel::rowsInserted);
        store().newChat();
        QCOMPARE(store().conversations().size(), 2);
        QCOMPARE(store().conversations().first().title, QStringLiteral("New conversation"));
        QVERIFY(store().conversations().first().messages.isEmpty());
        QCOMPARE(*store().selectedID(), store().conversations().first().id);
        QCOMPARE(store().conversations().at(1).id, original);
        QCOMPARE(store().prompt(), QString());
        QVERIFY(!store().attachment());
        QCOMPARE(inserted.count(), 1);
        const auto saved = HistoryFile::load(home().historyFile());
        QVERIFY(saved);
        QCOMPARE(saved->size(), 2);
    }

    void twoNewChatsInARow()
    {
        store().newChat();
        const QUuid first = store().conversations().first().id;
        store().newChat();
        QCOMPARE(store().conversations().size(), 3);
        QCOMPARE(store().conversations().at(1).id, first);
        QCOMPARE(*store().selectedID(), store().conversations().first().id);
        QCOMPARE(store().conversations().at(0).title, QStringLiteral("New conversation"));
        QCOMPARE(store().conversations().at(1).title, QStringLiteral("New conversation"));
        QVERIFY(store().conversations().at(0).id != first);
    }

    void newChatWhileGeneratingDoesNothing()
    {
        const QUuid selected = *store().selectedID();
        store().chat().setGenerating(true);
        store().newChat();
        QCOMPARE(store().conversations().size(), 1);
        QCOMPARE(*store().selectedID(), selected);
        QVERIFY(!QFileInfo::exists(home().historyFile()));
    }

    void lastCreatedIsSelectedAfterARestart()
    {
        store().newChat();
        store().newChat();
        const QUuid newest = store().conversations().first().id;
        store().setSelectedID(store().conversations().last().id);
        store().save();
        setup().restart();
        QCOMPARE(store().conversations().size(), 3);
        QCOMPARE(*store().selectedID(), newest);
    }

    void selectionMovesTheSelectedRole()
    {
        store().newChat();
        ConversationListModel *list = store().conversationList();
        QVERIFY(list->data(list->index(0), ConversationListModel::SelectedRole).toBool());
        QVERIFY(!list->data(list->index(1), ConversationListModel::SelectedRole).toBool());
        store().setSelectedIDText(list->data(list->index(1), ConversationListModel::IdRole).toString());
        QVERIFY(!list->data(list->index(0), ConversationListModel::SelectedRole).toBool());
        QVERIFY(list->data(list->index(1), ConversationListModel::SelectedRole).toBool());
    }

    // A streamed piece grows the answer with one change of one row. An answer that fell
    // behind while its conversation was not shown takes the whole reply instead, and so
    // does one whose text is not the reply before the piece; updateAssistant replaces.
    void aStreamedPieceGrowsTheAnswerWithOneChange()
    {
        Conversations conversations(home().historyFile());
        ListModelChecks checks(conversations.messageList());
        ChatMessage question;
        question.role = QStringLiteral("user");
        question.text = QStringLiteral("Hi");
        ChatMessage answer;
        answer.role = QStringLiteral("assistant");
        QVERIFY(conversations.ask(question, answer, QStringLiteral("Hi")));
        const QUuid asked = *conversations.selectedID();
        QSignalSpy changes(conversations.messageList(), &QAbstractItemModel::dataChanged);
        QSignalSpy rows(conversations.list(), &QAbstractItemModel::dataChanged);

        conversations.extendAssistant(answer.id, QStringLiteral("Hel"), QStringLiteral("Hel"));
        conversations.extendAssistant(answer.id, QStringLiteral("lo"), QStringLiteral("Hello"));
        QCOMPARE(conversations.messages().last().text, QStringLiteral("Hello"));
        QCOMPARE(changes.count(), 2);
        QCOMPARE(changes.last().at(0).toModelIndex().row(), 1);
        QCOMPARE(changes.last().at(1).toModelIndex().row(), 1);
        QCOMPARE(rows.count(), 2);

        // Away, nothing lands; back, the next piece brings everything.
        conversations.startNew();
        conversations.extendAssistant(answer.id, QStringLiteral(" there"), QStringLiteral("Hello there"));
        conversations.select(asked);
        QCOMPARE(conversations.messages().last().text, QStringLiteral("Hello"));
        changes.clear();
        conversations.extendAssistant(answer.id, QStringLiteral("!"), QStringLiteral("Hello there!"));
        QCOMPARE(conversations.messages().last().text, QStringLiteral("Hello there!"));
        QCOMPARE(changes.count(), 1);

        // Same length, other text: replaced, never appended to.
        conversations.updateAssistant(answer.id, QStringLiteral("Hellx there!"));
        conversations.extendAssistant(answer.id, QStringLiteral("?"), QStringLiteral("Hello there!?"));
        QCOMPARE(conversations.messages().last().text, QStringLiteral("Hello there!?"));
        conversations.updateAssistant(answer.id, QStringLiteral("Stopped."));
        QCOMPARE(conversations.messages().last().text, QStringLiteral("Stopped."));
        QCOMPARE(conversations.messages().first().text, QStringLiteral("Hi"));
    }
};

QTEST_GUILESS_MAIN(ConversationsTest)
#include "ConversationsTest.moc"
