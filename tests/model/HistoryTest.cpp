#include "TestHome.h"
#include "model/HistoryFile.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QtTest>

class HistoryTest : public QObject {
    Q_OBJECT

    // JSON written with single quotes, which stand for double ones.
    static QByteArray quoted(QByteArray json) { return json.replace('\'', '"'); }

private slots:
    void uuidsAreUpperCaseText()
    {
        const ChatMessage message{QUuid::createUuid(), "user", "Hi", std::nullopt};
        const QString id = message.toJson().value("id").toString();
        QCOMPARE(id.size(), 36);
        QCOMPARE(id, id.toUpper());
        QCOMPARE(*uuidFromText(id), message.id);
        QCOMPARE(*uuidFromText(id.toLower()), message.id);
        QVERIFY(!uuidFromText("{" + id + "}"));
        QVERIFY(!uuidFromText(id.left(35)));
        QVERIFY(!uuidFromText(QString(id).replace(8, 1, "x")));
        // Only ASCII hexadecimal digits count: not other digits or letters, and not
        // characters beyond Latin-1's ASCII half.
        for (const QChar other :
             {QChar(0x00E9), QChar(0x00AA), QChar(0xFF10), QChar(0x0661), QChar(0x0100 + 'a'), QChar('g')})
            QVERIFY(!uuidFromText(QString(id).replace(0, 1, other)));
    }

    void messageWithoutImageWritesNoImageKey()
    {
        const auto decoded = ChatMessage::fromJson(
            QJsonDocument::fromJson(R"({"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","role":"user","text":"Hi"})")
                .object());
        QVERIFY(decoded);
        QVERIFY(!decoded->image);
        QVERIFY(!decoded->toJson().contains("image"));
    }

    void nullImageIsNoImage()
    {
        const auto decoded = ChatMessage::fromJson(
            QJsonDocument::fromJson(
                R"({"id":"6f9619ff-8b86-d011-b42d-00c04fc964ff","role":"user","text":"Hi","image":null})")
                .object());
        QVERIFY(decoded);
        QVERIFY(!decoded->image);
    }

    void messageRequiresIdRoleText_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::newRow("no id") << QByteArray(R"({"role":"user","text":"Hi"})");
        QTest::newRow("no role") << QByteArray(R"({"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","text":"Hi"})");
        QTest::newRow("no text") << QByteArray(R"({"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","role":"user"})");
        QTest::newRow("bad id") << QByteArray(R"({"id":"nope","role":"user","text":"Hi"})");
        QTest::newRow("image number") << QByteArray(
            R"({"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","role":"user","text":"Hi","image":3})");
    }

    void messageRequiresIdRoleText()
    {
        QFETCH(QByteArray, json);
        QVERIFY(!ChatMessage::fromJson(QJsonDocument::fromJson(json).object()));
    }

    void conversationRequiresTitle()
    {
        QVERIFY(!Conversation::fromJson(
            QJsonDocument::fromJson(R"({"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","messages":[]})").object()));
        QVERIFY(!Conversation::fromJson(
            QJsonDocument::fromJson(R"({"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","title":"t"})").object()));
        QVERIFY(Conversation::fromJson(
            QJsonDocument::fromJson(R"({"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","title":"t","messages":[]})")
                .object()));
    }

    void newConversationDefaults()
    {
        const Conversation first;
        const Conversation second;
        QCOMPARE(first.title, QStringLiteral("New conversation"));
        QVERIFY(first.messages.isEmpty());
        QVERIFY(first.id != second.id);
    }

    void payloadWithImageHasImagePartFirst()
    {
        const ChatMessage message{QUuid::createUuid(), "user", "What is this?",
                                  QStringLiteral("data:image/png;base64,AAAA")};
        const QJsonObject payload = message.payload();
        QCOMPARE(payload.value("role").toString(), QStringLiteral("user"));
        QVERIFY(!payload.contains("id"));
        const QJsonArray content = payload.value("content").toArray();
        QCOMPARE(content.size(), 2);
        QCOMPARE(content.at(0).toObject().value("type").toString(), QStringLiteral("image_url"));
        QCOMPARE(content.at(0).toObject().value("image_url").toObject().value("url").toString(),
                 QStringLiteral("data:image/png;base64,AAAA"));
        QCOMPARE(content.at(1).toObject().value("type").toString(), QStringLiteral("text"));
        QCOMPARE(content.at(1).toObject().value("text").toString(), QStringLiteral("What is this?"));
    }

    void payloadWithoutImageIsPlainText()
    {
        const ChatMessage message{QUuid::createUuid(), "user", "Hi", std::nullopt};
        QCOMPARE(message.payload(), (QJsonObject{{"role", "user"}, {"content", "Hi"}}));
    }

    void emptyAssistantPayloadKeepsEmptyContent()
    {
        const ChatMessage message{QUuid::createUuid(), "assistant", "", std::nullopt};
        const QJsonObject payload = message.payload();
        QVERIFY(payload.value("content").isString());
        QCOMPARE(payload.value("content").toString(), QString());
    }

    void saveAndLoadRoundTrip()
    {
        TestHome home;
        const QString file = home.path() + "/history.json";
        Conversation conversation;
        conversation.title = "Trip";
        conversation.messages.append(
            ChatMessage{QUuid::createUuid(), "user", "Hi\n\nthere", QStringLiteral("data:image/png;base64,AA")});
        conversation.messages.append(ChatMessage{QUuid::createUuid(), "assistant", "Hello", std::nullopt});
        QVERIFY(HistoryFile::save(file, {conversation, Conversation()}));
        const auto loaded = HistoryFile::load(file);
        QVERIFY(loaded);
        QCOMPARE(loaded->size(), 2);
        QCOMPARE(loaded->first().id, conversation.id);
        QCOMPARE(loaded->first().messages.at(0).text, QStringLiteral("Hi\n\nthere"));
        QCOMPARE(*loaded->first().messages.at(0).image, QStringLiteral("data:image/png;base64,AA"));
        QVERIFY(!loaded->first().messages.at(1).image);

        QFile raw(file);
        QVERIFY(raw.open(QIODevice::ReadOnly));
        const QByteArray bytes = raw.readAll();
        // Compact: the only line breaks are the escaped ones inside the text.
        QVERIFY(!bytes.contains('\n'));
        QVERIFY(bytes.contains("\"text\":\"Hi\\n\\nthere\""));
        QVERIFY(bytes.startsWith("[{"));
        QCOMPARE(bytes.count("\"image\""), 1);
    }

    void awkwardTextsSurviveSaving()
    {
        const QString awkward = QStringLiteral(
            "quote \" backslash \\ lines\n\r\ttab \x01\x1f del\x7f \u00e9 \U0001F600 </script>");
        Conversation conversation;
        conversation.title = awkward;
        conversation.messages.append(ChatMessage{QUuid::createUuid(), awkward, awkward, awkward});
        const QByteArray encoded = HistoryFile::encode({conversation});
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(encoded, &error);
        QCOMPARE(error.error, QJsonParseError::NoError);
        QCOMPARE(document.array().first().toObject().value("title").toString(), awkward);
        const auto decoded = HistoryFile::decode(encoded);
        QVERIFY(decoded);
        QCOMPARE(decoded->first().title, awkward);
        QCOMPARE(decoded->first().messages.first().text, awkward);
        QCOMPARE(decoded->first().messages.first().role, awkward);
        QCOMPARE(*decoded->first().messages.first().image, awkward);
        QCOMPARE(HistoryFile::encode({}), QByteArray("[]"));
    }

    void savedFileIs0600()
    {
        TestHome home;
        const QString folder = home.path() + "/Vorn";
        HistoryFile::prepareFolder(folder);
        QCOMPARE(TestHome::posixMode(folder), 0700);
        const QString file = folder + "/conversations.json";
        QVERIFY(HistoryFile::save(file, {Conversation()}));
        QCOMPARE(TestHome::posixMode(file), 0600);
    }

    void failedWriteIsQuietAndLeavesNothing()
    {
        TestHome home;
        // A folder where the file should be: the write cannot happen.
        const QString file = home.path() + "/taken";
        QVERIFY(QDir().mkpath(file));
        QVERIFY(!HistoryFile::save(file, {Conversation()}));
        QVERIFY(QFileInfo(file).isDir());
        QCOMPARE(QDir(home.path()).entryList(QDir::Files | QDir::Hidden).size(), 0);
    }

    // A history from before pinning and system prompts reads and writes back byte for
    // byte; one that uses them keeps them.
    void aHistoryWithoutTheNewKeysIsWrittenAsBefore()
    {
        const QByteArray old = quoted(
            "[{'id':'6F9619FF-8B86-D011-B42D-00C04FC964FF','title':'Trip','messages':["
            "{'id':'0E984725-C51C-4BF4-9960-E1C80E27ABA0','role':'user','text':'Hi \\'there\\'\\n'},"
            "{'id':'1E984725-C51C-4BF4-9960-E1C80E27ABA0','role':'assistant','text':'Hello'}]},"
            "{'id':'7F9619FF-8B86-D011-B42D-00C04FC964FF','title':'New conversation','messages':[]}]");
        const auto decoded = HistoryFile::decode(old);
        QVERIFY(decoded);
        QCOMPARE(decoded->size(), 2);
        QCOMPARE(decoded->at(0).messages.first().text, QStringLiteral("Hi \"there\"\n"));
        QVERIFY(!decoded->at(0).pinned);
        QVERIFY(!decoded->at(0).system);
        QCOMPARE(HistoryFile::encode(*decoded), old);
    }

    void pinnedAndSystemRoundTrip()
    {
        Conversation pinned;
        pinned.pinned = true;
        Conversation withSystem;
        withSystem.system = QStringLiteral("Answer in \"French\".\nBriefly.");
        Conversation silenced;
        silenced.system = QString();
        const QByteArray encoded = HistoryFile::encode({pinned, withSystem, silenced});
        const QByteArray pinnedId = uuidText(pinned.id).toLatin1();
        QVERIFY(encoded.contains(
            quoted("{'id':'" + pinnedId + "','title':'New conversation','messages':[],'pinned':true}")));
        QVERIFY(encoded.contains(quoted("'messages':[],'system':'Answer in \\'French\\'.\\nBriefly.'}")));
        QVERIFY(encoded.contains(quoted("'messages':[],'system':''}")));
        QCOMPARE(encoded.count("pinned"), 1);

        const auto decoded = HistoryFile::decode(encoded);
        QVERIFY(decoded);
        QCOMPARE(decoded->size(), 3);
        QVERIFY(decoded->at(0).pinned);
        QVERIFY(!decoded->at(0).system);
        QVERIFY(!decoded->at(1).pinned);
        QCOMPARE(*decoded->at(1).system, *withSystem.system);
        QCOMPARE(*decoded->at(2).system, QString());
        QCOMPARE(HistoryFile::encode(*decoded), encoded);
    }

    // Keys this version does not know are passed over; false and null mean unset.
    void unknownKeysAreIgnored()
    {
        const auto decoded = HistoryFile::decode(
            quoted("[{'id':'6F9619FF-8B86-D011-B42D-00C04FC964FF','title':'t','messages':[],"
                   "'folder':'Work','pinned':false,'system':null,'color':{'r':1}}]"));
        QVERIFY(decoded);
        QCOMPARE(decoded->size(), 1);
        QVERIFY(!decoded->at(0).pinned);
        QVERIFY(!decoded->at(0).system);
        QCOMPARE(HistoryFile::encode(*decoded),
                 quoted("[{'id':'6F9619FF-8B86-D011-B42D-00C04FC964FF','title':'t','messages':[]}]"));
    }

    void aCorruptNewKeyFailsTheFile_data()
    {
        QTest::addColumn<QByteArray>("extra");
        QTest::newRow("pinned text") << quoted("'pinned':'yes'");
        QTest::newRow("pinned number") << quoted("'pinned':1");
        QTest::newRow("system number") << quoted("'system':3");
        QTest::newRow("system list") << quoted("'system':['a']");
    }

    void aCorruptNewKeyFailsTheFile()
    {
        QFETCH(QByteArray, extra);
        QVERIFY(!HistoryFile::decode(quoted("[{'id':'6F9619FF-8B86-D011-B42D-00C04FC964FF','title':'t','messages':[],")
                                     + extra + "}]"));
    }

    void decodeRejectsObjectsAndBadElements()
    {
        QVERIFY(!HistoryFile::decode(R"({"conversations":[]})"));
        QVERIFY(!HistoryFile::decode("[1]"));
        QVERIFY(!HistoryFile::decode("not json"));
        QVERIFY(HistoryFile::decode("[]"));
        QVERIFY(HistoryFile::decode("[]")->isEmpty());
    }
};

QTEST_GUILESS_MAIN(HistoryTest)
#include "HistoryTest.moc"
