// A reply's reasoning section and its answer, and how the history keeps the time it took.
#include "model/ReplyText.h"
#include "model/ChatMessage.h"
#include "model/Conversation.h"
#include "model/HistoryFile.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

class ReplyTextTest : public QObject {
    Q_OBJECT

private slots:
    void aClosedSectionSplitsTheReply()
    {
        const ReplyText parts = ReplyText::split(
            QStringLiteral("\n <think>\nStep one.\nStep two.\n</think>\n\n# Answer"));
        QVERIFY(parts.hasReasoning);
        QVERIFY(!parts.reasoningOpen);
        QCOMPARE(parts.reasoning, QStringLiteral("Step one.\nStep two."));
        QCOMPARE(parts.answer, QStringLiteral("# Answer"));
    }

    void anOpenSectionHasNoAnswerYet()
    {
        const ReplyText parts = ReplyText::split(QStringLiteral("<think>\nStill going</thi"));
        QVERIFY(parts.hasReasoning);
        QVERIFY(parts.reasoningOpen);
        // A closing tag still arriving is not shown as reasoning.
        QCOMPARE(parts.reasoning, QStringLiteral("Still going"));
        QCOMPARE(parts.answer, QString());
        QCOMPARE(ReplyText::answerStart(QStringLiteral("<think>abc")), 10);
    }

    void onlyALeadingSectionCounts()
    {
        const QString text = QStringLiteral("Use <think> tags like this: <think>x</think>");
        const ReplyText parts = ReplyText::split(text);
        QVERIFY(!parts.hasReasoning);
        QCOMPARE(parts.answer, text);
        QCOMPARE(ReplyText::answerStart(text), 0);
        QCOMPARE(ReplyText::split(QString()).answer, QString());
    }

    void thinkingTimeIsWrittenOnlyWhenKnown()
    {
        ChatMessage message{QUuid::createUuid(), QStringLiteral("assistant"), QStringLiteral("<think>a</think>b"),
                            std::nullopt};
        QVERIFY(!message.toJson().contains(QStringLiteral("thinkingSeconds")));
        QCOMPARE(message.toJson().keys(), (QStringList{"id", "role", "text"}));
        message.thinkingSeconds = 12;
        QCOMPARE(message.toJson().value(QStringLiteral("thinkingSeconds")).toInteger(), 12);
        const auto read = ChatMessage::fromJson(message.toJson());
        QVERIFY(read);
        QCOMPARE(read->thinkingSeconds, std::optional<qint64>(12));
        // A figure that is no count of seconds is left out; the message stays.
        QJsonObject odd = message.toJson();
        odd.insert(QStringLiteral("thinkingSeconds"), -3);
        QVERIFY(ChatMessage::fromJson(odd));
        QVERIFY(!ChatMessage::fromJson(odd)->thinkingSeconds);
        odd.insert(QStringLiteral("thinkingSeconds"), QStringLiteral("soon"));
        QVERIFY(!ChatMessage::fromJson(odd)->thinkingSeconds);
    }

    void theHistoryFileWritesTheTimeOnlyWhenKnown()
    {
        Conversation conversation;
        conversation.title = QStringLiteral("T");
        conversation.messages.append(
            ChatMessage{QUuid::createUuid(), QStringLiteral("assistant"), QStringLiteral("plain"), std::nullopt});
        const QByteArray without = HistoryFile::encode({conversation});
        QVERIFY(!without.contains("thinkingSeconds"));
        // A message without it is written as before: id, role and text, nothing after.
        QVERIFY(without.endsWith(",\"role\":\"assistant\",\"text\":\"plain\"}]}]"));
        conversation.messages.first().thinkingSeconds = 7;
        const QByteArray with = HistoryFile::encode({conversation});
        QVERIFY(with.contains(",\"thinkingSeconds\":7}"));
        const auto decoded = HistoryFile::decode(with);
        QVERIFY(decoded);
        QCOMPARE(decoded->first().messages.first().thinkingSeconds, std::optional<qint64>(7));
    }
};

QTEST_GUILESS_MAIN(ReplyTextTest)

#include "ReplyTextTest.moc"
