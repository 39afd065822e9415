#include "StoreTestCase.h"
#include "chat/ChatSession.h"
#include "chat/ConversationListModel.h"
#include "chat/MessageListModel.h"
#include "engine/EngineConnection.h"
#include "engine/EngineStore.h"
#include "library/ModelLibrary.h"
#include "model/HistoryFile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSignalSpy>
#include <QtTest>

// The store as it starts, before any engine: properties, history and derived values.
class StoreTest : public StoreTestCase {
    Q_OBJECT

private:
    static bool writeFile(const QString &path, const QByteArray &bytes)
    {
        QDir().mkpath(QFileInfo(path).path());
        QFile file(path);
        return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
    }

    static QByteArray readFile(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    static EngineState stateWithLoaded(const std::optional<QString> &loaded)
    {
        EngineState state;
        state.version = "1";
        state.dir = "/m";
        state.loaded = loaded;
        return state;
    }

private slots:
    void init() { build(FakeEngine::stateJson(), StoreFixture::Engine::None); }

    void initialValues()
    {
        QVERIFY(!store().state());
        QVERIFY(!store().ready());
        QCOMPARE(store().activity(), QStringLiteral("Starting local engine\u2026"));
        QVERIFY(!store().error());
        QVERIFY(!store().loading());
        QVERIFY(!store().generating());
        QCOMPARE(store().prompt(), QString());
        QVERIFY(!store().attachment());
        QVERIFY(!store().showLibrary());
        QCOMPARE(store().temperature(), 0.7);
        QCOMPARE(store().tokenLimit(), 512);
        QVERIFY(!store().process());
        QVERIFY(!store().baseURL());
        QCOMPARE(store().directory(), QDir(home().path()).filePath(".vorn/models"));
        QCOMPARE(store().historyFile(), home().historyFile());
        // The models folder is left for the engine launch to create.
        QVERIFY(!QFileInfo::exists(store().directory()));
    }

    void noHistoryGivesOneNewConversationSelected()
    {
        QCOMPARE(store().conversations().size(), 1);
        QCOMPARE(store().conversations().first().title, QStringLiteral("New conversation"));
        QVERIFY(store().conversations().first().messages.isEmpty());
        QCOMPARE(*store().selectedID(), store().conversations().first().id);
        QCOMPARE(store().conversationList()->rowCount(), 1);
    }

    void historyFolderIs0700()
    {
        QVERIFY(QFileInfo(home().dataFolder()).isDir());
        QCOMPARE(TestHome::posixMode(home().dataFolder()), 0700);
        store().save();
        QCOMPARE(TestHome::posixMode(home().historyFile()), 0600);
    }

    void emptyArrayBehavesLikeMissingFile()
    {
        QVERIFY(writeFile(home().historyFile(), "[]"));
        setup().restart();
        QCOMPARE(store().conversations().size(), 1);
        QCOMPARE(store().conversations().first().title, QStringLiteral("New conversation"));
        QCOMPARE(*store().selectedID(), store().conversations().first().id);
    }

    void objectAtTopLevelIsIgnoredAndLeftUntouched()
    {
        QVERIFY(writeFile(home().historyFile(), R"({"not":"a list"})"));
        setup().restart();
        QCOMPARE(store().conversations().size(), 1);
        QCOMPARE(store().conversations().first().title, QStringLiteral("New conversation"));
        QFile file(home().historyFile());
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), QByteArray(R"({"not":"a list"})"));
    }

    void corruptHistoryStartsFresh()
    {
        const QByteArray broken = "[{\"id\":\"broken";
        QVERIFY(writeFile(home().historyFile(), broken));
        setup().restart();
        QCOMPARE(store().conversations().size(), 1);
        QVERIFY(!store().error());
        // The file is left as it was, and a copy is kept beside it, since the next
        // save replaces it.
        QCOMPARE(readFile(home().historyFile()), broken);
        const QStringList copies =
            QDir(home().dataFolder()).entryList({QStringLiteral("conversations.json.unreadable-*")});
        QCOMPARE(copies.size(), 1);
        const QString copy = QDir(home().dataFolder()).filePath(copies.first());
        QCOMPARE(readFile(copy), broken);
        QCOMPARE(TestHome::posixMode(copy), 0600);
        store().newChat();
        QVERIFY(HistoryFile::load(home().historyFile()));
        QCOMPARE(readFile(copy), broken);
    }

    void missingOrEmptyHistoryKeepsNoCopy()
    {
        {
        }
        QVERIFY(writeFile(home().historyFile(), "[]"));
        setup().restart();
        QCOMPARE(store().conversations().size(), 1);
        QVERIFY(QDir(home().dataFolder()).entryList({QStringLiteral("*.unreadable-*")}).isEmpty());
    }

    void severalConversationsSelectTheFirstInFileOrder()
    {
        Conversation first;
        first.title = "First";
        Conversation second;
        second.title = "Second";
        second.messages.append(ChatMessage{QUuid::createUuid(), "user", "Hi", std::nullopt});
        HistoryFile::prepareFolder(home().dataFolder());
        QVERIFY(HistoryFile::save(home().historyFile(), {first, second}));
        setup().restart();
        QCOMPARE(store().conversations().size(), 2);
        QCOMPARE(store().conversations().at(0).title, QStringLiteral("First"));
        QCOMPARE(store().conversations().at(1).title, QStringLiteral("Second"));
        QCOMPARE(*store().selectedID(), first.id);
        QVERIFY(store().messages().isEmpty());
        store().setSelectedID(second.id);
        QCOMPARE(store().messages().size(), 1);
        QCOMPARE(store().messageList()->rowCount(), 1);
        QCOMPARE(store().messageList()->data(store().messageList()->index(0), MessageListModel::TextRole).toString(),
                 QStringLiteral("Hi"));
    }

    void emptyLoadedMeansNoModel()
    {
        QVERIFY(!store().hasLoadedModel());
        QCOMPARE(store().loadedName(), QStringLiteral("No model loaded"));
        store().engine().setState(stateWithLoaded(QString()));
        QVERIFY(!store().hasLoadedModel());
        QCOMPARE(store().loadedName(), QStringLiteral("No model loaded"));
        store().engine().setState(stateWithLoaded(std::nullopt));
        QVERIFY(!store().hasLoadedModel());
    }

    void loadedNameDropsEveryGgufExtension()
    {
        store().engine().setState(stateWithLoaded(QStringLiteral("my-model.gguf")));
        QVERIFY(store().hasLoadedModel());
        QCOMPARE(store().loadedName(), QStringLiteral("my-model"));
        store().engine().setState(stateWithLoaded(QStringLiteral("a.gguf.b.gguf")));
        QCOMPARE(store().loadedName(), QStringLiteral("a.b"));
    }

    // The send/stop control's table, first matching row first.
    void canSendFollowsTheTable()
    {
        QSignalSpy changes(&store(), &EngineStore::canSendChanged);
        store().setPrompt(QStringLiteral("Hi"));
        QVERIFY(!store().canSend()); // no status, so no model
        store().engine().setState(stateWithLoaded(QStringLiteral("m.gguf")));
        QVERIFY(store().canSend());
        QCOMPARE(changes.size(), 1);

        store().library().setLoading(true);
        QVERIFY(!store().canSend());
        store().chat().setGenerating(true);
        QVERIFY(store().canSend()); // stop comes first
        store().chat().setGenerating(false);
        store().library().setLoading(false);
        QVERIFY(store().canSend());

        store().setPrompt(QString());
        QVERIFY(!store().canSend());
        store().setPrompt(QStringLiteral("  "));
        QVERIFY(store().canSend()); // spaces count as text here

        // An image needs a model that can see.
        store().setAttachment(QStringLiteral("data:image/png;base64,AA"));
        QVERIFY(!store().canSend());
        store().setPrompt(QString());
        QVERIFY(!store().canSend());
        EngineState seeing = stateWithLoaded(QStringLiteral("m.gguf"));
        seeing.vision = true;
        store().engine().setState(seeing);
        QVERIFY(store().canSend());
        store().engine().setState(std::nullopt);
        QVERIFY(!store().canSend());
        store().engine().setState(seeing);
        store().clearAttachment();
        QVERIFY(!store().canSend());
        store().chat().setGenerating(true);
        QVERIFY(store().canSend());

        // Every change of the answer was announced, and only those.
        QCOMPARE(changes.size(), 13);
    }

    void messagesEmptyForUnknownSelection()
    {
        Conversation conversation;
        conversation.messages.append(ChatMessage{QUuid::createUuid(), "user", "Hi", std::nullopt});
        HistoryFile::prepareFolder(home().dataFolder());
        QVERIFY(HistoryFile::save(home().historyFile(), {conversation}));
        setup().restart();
        QCOMPARE(store().messages().size(), 1);
        store().setSelectedID(QUuid::createUuid());
        QVERIFY(store().messages().isEmpty());
        QCOMPARE(store().messageList()->rowCount(), 0);
        store().setSelectedID(std::nullopt);
        QVERIFY(store().messages().isEmpty());
        QCOMPARE(store().selectedIDText(), QString());
    }

    void propertiesAnnounceChanges()
    {
        QSignalSpy prompt(&store(), &EngineStore::promptChanged);
        QSignalSpy error(&store(), &EngineStore::errorChanged);
        QSignalSpy attachment(&store(), &EngineStore::attachmentChanged);
        QSignalSpy state(&store(), &EngineStore::stateChanged);
        QSignalSpy selection(&store(), &EngineStore::selectedIDChanged);
        QVERIFY(store().setProperty("prompt", "Hello"));
        QVERIFY(store().setProperty("error", "Oops"));
        QVERIFY(store().setProperty("attachment", "data:image/png;base64,AA"));
        QVERIFY(store().setProperty("selectedID", QUuid::createUuid().toString(QUuid::WithoutBraces)));
        store().engine().setState(stateWithLoaded(QStringLiteral("m.gguf")));
        QCOMPARE(prompt.count(), 1);
        QCOMPARE(error.count(), 1);
        QCOMPARE(attachment.count(), 1);
        QCOMPARE(state.count(), 1);
        QCOMPARE(selection.count(), 1);
        QCOMPARE(store().property("loadedName").toString(), QStringLiteral("m"));
        QVERIFY(store().property("hasError").toBool());
        QVERIFY(store().setProperty("error", QVariant()));
        QVERIFY(!store().error());
        QVERIFY(store().setProperty("attachment", QVariant::fromValue(nullptr)));
        QVERIFY(!store().attachment());
    }
};

QTEST_GUILESS_MAIN(StoreTest)
#include "StoreTest.moc"
