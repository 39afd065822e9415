#include "chat/SseLineReader.h"

#include <QtTest>

class SseLineReaderTest : public QObject {
    Q_OBJECT

private slots:
    void everyLineEndingCounts()
    {
        SseLineReader reader;
        QCOMPARE(reader.feed("a\nb\rc\r\nd"), (QStringList{"a", "b", "c"}));
        QCOMPARE(reader.finish(), QStringList{"d"});
    }

    void carriageReturnSplitAcrossChunks()
    {
        SseLineReader reader;
        QCOMPARE(reader.feed("one\r"), QStringList{"one"});
        QCOMPARE(reader.feed("\ntwo\r\n"), QStringList{"two"});
        QCOMPARE(reader.finish(), QStringList());
    }

    void emptyLinesAreKept()
    {
        SseLineReader reader;
        QCOMPARE(reader.feed("\n\nx\n"), (QStringList{"", "", "x"}));
        QCOMPARE(reader.feed("\r\r\n"), (QStringList{"", ""}));
    }

    void multiByteCharactersSurviveChunkBoundaries()
    {
        SseLineReader reader;
        const QByteArray text = QStringLiteral("data: h\u00e9llo \U0001F600\n").toUtf8();
        QStringList lines;
        for (char byte : text)
            lines += reader.feed(QByteArray(1, byte));
        QCOMPARE(lines, QStringList{QStringLiteral("data: h\u00e9llo \U0001F600")});
    }

    void oneByteAtATime()
    {
        SseLineReader reader;
        QStringList lines;
        for (char byte : QByteArray("a\r\nb\rc\n"))
            lines += reader.feed(QByteArray(1, byte));
        QCOMPARE(lines, (QStringList{"a", "b", "c"}));
    }
};

QTEST_GUILESS_MAIN(SseLineReaderTest)
#include "SseLineReaderTest.moc"
