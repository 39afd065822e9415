#include "TestHome.h"
#include "chat/ConversationListModel.h"
#include "chat/ChatSession.h"
#include "engine/EngineStore.h"
#include "model/HistoryFile.h"

#include <QSignalSpy>
#include <QtTest>

class ConversationsTest : public QObject {
    Q_OBJECT

private slots:
    void newChatGoesFirstSelectedAndSaved()
    {
        TestHome home;
        EngineStore store;
        const QUuid original = store.conversations().first().id;
        store.setPrompt(QStringLiteral("draft"));
        store.setAttachment(QStringLiteral("data:image/png;base64,AA"));
        QSignalSpy inserted(store.conversationList(), &QAbstractItemModel::rowsInserted);
        store.newChat();
        QCOMPARE(store.conversations().size(), 2);
        QCOMPARE(store.conversations().first().title, QStringLiteral("New conversation"));
        QVERIFY(store.conversations().first().messages.isEmpty());
        QCOMPARE(*store.selectedID(), store.conversations().first().id);
        QCOMPARE(store.conversations().at(1).id, original);
        QCOMPARE(store.prompt(), QString());
        QVERIFY(!store.attachment());
        QCOMPARE(inserted.count(), 1);
        const auto saved = HistoryFile::load(home.historyFile());
        QVERIFY(saved);
        QCOMPARE(saved->size(), 2);
    }

    void twoNewChatsInARow()
    {
        TestHome home;
        EngineStore store;
        store.newChat();
        const QUuid first = store.conversations().first().id;
        store.newChat();
        QCOMPARE(store.conversations().size(), 3);
        QCOMPARE(store.conversations().at(1).id, first);
        QCOMPARE(*store.selectedID(), store.conversations().first().id);
        QCOMPARE(store.conversations().at(0).title, QStringLiteral("New conversation"));
        QCOMPARE(store.conversations().at(1).title, QStringLiteral("New conversation"));
        QVERIFY(store.conversations().at(0).id != first);
    }

    void newChatWhileGeneratingDoesNothing()
    {
        TestHome home;
        EngineStore store;
        const QUuid selected = *store.selectedID();
        store.chat().setGenerating(true);
        store.newChat();
        QCOMPARE(store.conversations().size(), 1);
        QCOMPARE(*store.selectedID(), selected);
        QVERIFY(!QFileInfo::exists(home.historyFile()));
    }

    void lastCreatedIsSelectedAfterARestart()
    {
        TestHome home;
        QUuid newest;
        {
            EngineStore store;
            store.newChat();
            store.newChat();
            newest = store.conversations().first().id;
            store.setSelectedID(store.conversations().last().id);
            store.save();
        }
        EngineStore restarted;
        QCOMPARE(restarted.conversations().size(), 3);
        QCOMPARE(*restarted.selectedID(), newest);
    }

    void selectionMovesTheSelectedRole()
    {
        TestHome home;
        EngineStore store;
        store.newChat();
        ConversationListModel *list = store.conversationList();
        QVERIFY(list->data(list->index(0), ConversationListModel::SelectedRole).toBool());
        QVERIFY(!list->data(list->index(1), ConversationListModel::SelectedRole).toBool());
        store.setSelectedIDText(list->data(list->index(1), ConversationListModel::IdRole).toString());
        QVERIFY(!list->data(list->index(0), ConversationListModel::SelectedRole).toBool());
        QVERIFY(list->data(list->index(1), ConversationListModel::SelectedRole).toBool());
    }
};

QTEST_GUILESS_MAIN(ConversationsTest)
#include "ConversationsTest.moc"
