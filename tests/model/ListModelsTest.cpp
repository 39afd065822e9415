// The store's list models as views see them, checked by Qt's model tester and by the
// announced-change check while the store changes underneath.
#include "StoreTestCase.h"
#include "chat/ConversationListModel.h"
#include "chat/MessageListModel.h"
#include "engine/EngineConnection.h"
#include "engine/EngineStore.h"
#include "library/DownloadListModel.h"
#include "library/LocalModelListModel.h"
#include "model/HistoryFile.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QtTest>

class ListModelsTest : public StoreTestCase {
    Q_OBJECT

private:
    static QByteArray delta(const QString &content) { return FakeResponse::delta(content); }

    static QByteArray models(const QList<QPair<QString, qint64>> &entries)
    {
        QJsonArray array;
        for (const auto &[name, size] : entries)
            array.append(QJsonObject{{"name", name}, {"size", size}, {"projector", name.contains("mmproj")}});
        return QJsonDocument(array).toJson(QJsonDocument::Compact);
    }

    static QByteArray downloads(const QList<QPair<QString, qint64>> &entries)
    {
        QJsonArray array;
        for (const auto &[name, bytes] : entries)
            array.append(QJsonObject{{"name", name}, {"bytes", bytes}, {"total", 1000}});
        return QJsonDocument(array).toJson(QJsonDocument::Compact);
    }

    // The engine reports this status, and the store has applied it.
    bool refresh(const QByteArray &state)
    {
        engine().setState(state);
        return setup().refresh();
    }

    static Conversation conversation(const QString &title, const QStringList &texts)
    {
        Conversation made;
        made.title = title;
        for (int index = 0; index < texts.size(); ++index)
            made.messages.append(
                ChatMessage{QUuid::createUuid(), index % 2 ? "assistant" : "user", texts.at(index), std::nullopt});
        return made;
    }

private slots:
    void statusRoundsAddAndRemoveModelsAndDownloads()
    {

        const QString none;
        QVERIFY(refresh(FakeEngine::stateJson(none, false, models({{"a.gguf", 10}, {"b.gguf", 20}}))));
        QCOMPARE(store().modelList()->rowCount(), 2);
        // A size changes in place; an entry comes and goes; a projector appears.
        QVERIFY(refresh(FakeEngine::stateJson(none, false, models({{"a.gguf", 11}, {"b.gguf", 20}}))));
        QVERIFY(refresh(FakeEngine::stateJson(none, false, models({{"a.gguf", 11}, {"b.gguf", 20}, {"c.gguf", 5}}))));
        QVERIFY(
            refresh(FakeEngine::stateJson(none, false, models({{"b.gguf", 20}, {"c.gguf", 5}, {"c-mmproj.gguf", 3}}))));
        QCOMPARE(store().modelList()->rowCount(), 3);
        QCOMPARE(store().modelList()->modelCount(), 2);

        // Downloads start, advance, finish.
        QVERIFY(refresh(FakeEngine::stateJson(none, false, "[]", downloads({{"d.gguf", 100}}))));
        QVERIFY(refresh(FakeEngine::stateJson(none, false, "[]", downloads({{"d.gguf", 500}, {"e.gguf", 1}}))));
        QCOMPARE(store().downloadList()->rowCount(), 2);
        QCOMPARE(store().downloadList()->index(0).data(DownloadListModel::BytesRole).toLongLong(), 500);
        QVERIFY(refresh(FakeEngine::stateJson(none, false, models({{"d.gguf", 1000}}), downloads({{"e.gguf", 2}}))));
        QCOMPARE(store().downloadList()->rowCount(), 1);
        QCOMPARE(store().modelList()->rowCount(), 1);
        store().engine().setState(std::nullopt);
        QCOMPARE(store().modelList()->rowCount(), 0);
        QCOMPARE(store().downloadList()->rowCount(), 0);
    }

    void conversationsAndMessagesFollowSelectionSendingAndStreaming()
    {
        HistoryFile::prepareFolder(home().dataFolder());
        QVERIFY(HistoryFile::save(home().historyFile(),
                                  {conversation("First", {"one", "two", "three"}), conversation("Second", {"only"}),
                                   conversation("Empty", {})}));
        setup().restart();
        QVERIFY(refresh(FakeEngine::stateJson("m.gguf")));
        QCOMPARE(store().messageList()->rowCount(), 3);

        // Selection: another conversation, an unknown one, none, and back.
        const QList<Conversation> saved = store().conversations();
        store().setSelectedID(saved.at(1).id);
        QCOMPARE(store().messageList()->rowCount(), 1);
        store().setSelectedID(QUuid::createUuid());
        QCOMPARE(store().messageList()->rowCount(), 0);
        store().setSelectedID(std::nullopt);
        store().setSelectedID(saved.at(2).id);
        store().setSelectedID(saved.at(0).id);
        QCOMPARE(store().messageList()->rowCount(), 3);

        // A new chat goes first and is selected.
        store().newChat();
        QCOMPARE(store().conversationList()->rowCount(), 4);
        QCOMPARE(store().messageList()->rowCount(), 0);

        // Sending titles the conversation and appends two messages; the reply streams.
        QList<QByteArray> parts;
        for (const char *piece : {"Once", " upon", " a", " time"})
            parts.append(delta(QString::fromLatin1(piece)));
        parts.append("data: [DONE]\n\n");
        engine().route("POST", "/v1/chat/completions", FakeResponse::stream(parts, 20));
        store().setPrompt(QStringLiteral("Tell me a story"));
        store().send();
        QCOMPARE(store().messageList()->rowCount(), 2);
        QTRY_VERIFY_WITH_TIMEOUT(!store().generating(), 5000);
        QCOMPARE(store().messages().last().text, QStringLiteral("Once upon a time"));
        QCOMPARE(store().messageList()->answerAt(1), QStringLiteral("Once upon a time"));
        QCOMPARE(store().messageList()->answerAt(0), QStringLiteral("Tell me a story"));
        QCOMPARE(store().messageList()->answerAt(2), QString());
        QCOMPARE(store().messageList()->answerAt(-1), QString());

        // A stopped reply, then a second turn while another conversation is shown.
        FakeResponse endless = FakeResponse::stream({delta("Half")});
        endless.parts.append({60000, "data: [DONE]\n\n"});
        engine().route("POST", "/v1/chat/completions", endless);
        store().setPrompt(QStringLiteral("And then?"));
        store().send();
        QTRY_COMPARE_WITH_TIMEOUT(store().messages().last().text, QStringLiteral("Half"), 5000);
        store().setSelectedID(saved.at(1).id);
        store().setSelectedID(store().conversations().first().id);
        store().stop();
        QVERIFY(!store().generating());
        QCOMPARE(store().messageList()->rowCount(), 4);
    }
};

QTEST_GUILESS_MAIN(ListModelsTest)
#include "ListModelsTest.moc"
