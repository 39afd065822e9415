// A reply's Markdown: what the parser makes of each construct, what the prose writer
// puts in a document, and how the segment list follows a growing reply.
#include "MarkdownDocumentWriter.h"
#include "MarkdownParser.h"
#include "MarkdownSegmentList.h"

#include <QGuiApplication>
#include <QSignalSpy>
#include <QStandardItemModel>
#include <QTextBlock>
#include <QTextDocument>
#include <QTextFragment>
#include <QTextTable>
#include <QtTest>

namespace {

using Event = MarkdownEvent;
using Kind = MarkdownEvent::Kind;
using Type = MarkdownEvent::Type;

Event enter(Kind kind, int number = 0, bool flag = false)
{
    return {Type::Enter, kind, flag, number, {}};
}
Event leave(Kind kind)
{
    return {Type::Leave, kind, false, 0, {}};
}
Event text(const QString &text, Kind kind = Kind::Plain)
{
    return {Type::Text, kind, false, 0, text};
}

// The prose units of a reply that is one run of prose.
QList<MarkdownUnit> prose(const QString &markdown)
{
    const QList<MarkdownSegment> segments = MarkdownParser::parse(markdown);
    if (segments.size() != 1 || segments.first().kind != MarkdownSegment::Kind::Prose)
        return {};
    return segments.first().units;
}

// Every text the parse holds, prose and code, as one string.
QString allText(const QList<MarkdownSegment> &segments)
{
    QString all;
    for (const MarkdownSegment &segment : segments) {
        all += segment.code + segment.language;
        for (const MarkdownUnit &unit : segment.units) {
            for (const Event &event : unit)
                all += event.text;
        }
    }
    return all;
}

int maxDepth(const QList<MarkdownSegment> &segments)
{
    int deepest = 0;
    for (const MarkdownSegment &segment : segments) {
        for (const MarkdownUnit &unit : segment.units) {
            int depth = 0;
            for (const Event &event : unit) {
                if (event.type == Type::Enter)
                    deepest = std::max(deepest, ++depth);
                else if (event.type == Type::Leave)
                    --depth;
            }
        }
    }
    return deepest;
}

MarkdownStyle testStyle()
{
    MarkdownStyle style;
    style.text = Qt::black;
    style.secondary = Qt::gray;
    style.link = Qt::blue;
    style.codeFill = Qt::lightGray;
    style.hairline = Qt::darkGray;
    return style;
}

// A document written from markdown, the way a reply's prose is.
struct Written {
    QTextDocument document;
    MarkdownDocumentWriter writer{&document, testStyle()};
    explicit Written(const QString &markdown) { writer.show(prose(markdown)); }
    QString plain() const { return document.toPlainText(); }
    QList<QTextCharFormat> formatsOf(const QString &piece) const
    {
        QList<QTextCharFormat> formats;
        for (QTextBlock block = document.begin(); block.isValid(); block = block.next()) {
            for (auto fragment = block.begin(); !fragment.atEnd(); ++fragment) {
                if (fragment.fragment().text().contains(piece))
                    formats.append(fragment.fragment().charFormat());
            }
        }
        return formats;
    }
    QTextCharFormat formatOf(const QString &piece) const
    {
        const QList<QTextCharFormat> formats = formatsOf(piece);
        return formats.isEmpty() ? QTextCharFormat() : formats.first();
    }
};

// A list with an "answer" role, like the message list.
class AnswerList : public QStandardItemModel {
public:
    static constexpr int answerRole = Qt::UserRole + 8;
    explicit AnswerList(const QString &text)
    {
        auto *item = new QStandardItem;
        item->setData(text, answerRole);
        appendRow(item);
    }
    QHash<int, QByteArray> roleNames() const override { return {{answerRole, "answer"}}; }
    void setText(const QString &text) { item(0)->setData(text, answerRole); }
};

// The segments of a reply still being written, as the reply view lists them.
struct StreamedReply {
    AnswerList answers;
    MarkdownSegmentList segments;
    explicit StreamedReply(const QString &text) : answers(text)
    {
        segments.setStreaming(true);
        segments.setModel(&answers);
        segments.setRow(0);
    }
};

} // namespace

class MarkdownTest : public QObject {
    Q_OBJECT

private slots:
    void headingsAndParagraphs()
    {
        QCOMPARE(prose(QStringLiteral("# Title\n\nSome *soft*\ntext.\n\n### Third")),
                 (QList<MarkdownUnit>{
                     {enter(Kind::Heading, 1), text("Title"), leave(Kind::Heading)},
                     {enter(Kind::Paragraph), text("Some "), enter(Kind::Emphasis), text("soft"), leave(Kind::Emphasis),
                      text(QString(QChar::LineSeparator), Kind::Break), text("text."), leave(Kind::Paragraph)},
                     {enter(Kind::Heading, 3), text("Third"), leave(Kind::Heading)},
                 }));
    }

    void inlineSpans()
    {
        QCOMPARE(prose(QStringLiteral("**bold** ~~gone~~ `a < b`")),
                 (QList<MarkdownUnit>{{enter(Kind::Paragraph), enter(Kind::Strong), text("bold"), leave(Kind::Strong),
                                       text(" "), enter(Kind::Strike), text("gone"), leave(Kind::Strike), text(" "),
                                       enter(Kind::Code), text("a < b"), leave(Kind::Code), leave(Kind::Paragraph)}}));
    }

    void listsCountAndNest()
    {
        QCOMPARE(prose(QStringLiteral("3. three\n4. four\n   - inner")),
                 (QList<MarkdownUnit>{{enter(Kind::OrderedList, 3, true), enter(Kind::ListItem), text("three"),
                                       leave(Kind::ListItem), enter(Kind::ListItem), text("four"),
                                       enter(Kind::BulletList, 0, true), enter(Kind::ListItem), text("inner"),
                                       leave(Kind::ListItem), leave(Kind::BulletList), leave(Kind::ListItem),
                                       leave(Kind::OrderedList)}}));
        // Items apart from each other make a loose list, with paragraphs.
        const QList<MarkdownUnit> loose = prose(QStringLiteral("- a\n\n- b"));
        QCOMPARE(loose.size(), 1);
        QCOMPARE(loose.first().first(), enter(Kind::BulletList, 0, false));
        QVERIFY(loose.first().contains(enter(Kind::Paragraph)));
    }

    void taskLists()
    {
        QCOMPARE(prose(QStringLiteral("- [ ] todo\n- [x] done")),
                 (QList<MarkdownUnit>{{enter(Kind::BulletList, 0, true), enter(Kind::ListItem, 1), text("todo"),
                                       leave(Kind::ListItem), enter(Kind::ListItem, 2), text("done"),
                                       leave(Kind::ListItem), leave(Kind::BulletList)}}));
    }

    void quotesAndRules()
    {
        QCOMPARE(prose(QStringLiteral("> quoted\n\n---")),
                 (QList<MarkdownUnit>{{enter(Kind::Quote), enter(Kind::Paragraph), text("quoted"),
                                       leave(Kind::Paragraph), leave(Kind::Quote)},
                                      {enter(Kind::Rule), leave(Kind::Rule)}}));
    }

    void tables()
    {
        QCOMPARE(
            prose(QStringLiteral("| a | b |\n|---|--:|\n| 1 | 2 |")),
            (QList<MarkdownUnit>{{enter(Kind::Table, 2), enter(Kind::TableRow, 0, true), enter(Kind::TableCell),
                                  text("a"), leave(Kind::TableCell), enter(Kind::TableCell, 3), text("b"),
                                  leave(Kind::TableCell), leave(Kind::TableRow), enter(Kind::TableRow),
                                  enter(Kind::TableCell), text("1"), leave(Kind::TableCell), enter(Kind::TableCell, 3),
                                  text("2"), leave(Kind::TableCell), leave(Kind::TableRow), leave(Kind::Table)}}));
    }

    void codeBlocksAreSegmentsOfTheirOwn()
    {
        const QList<MarkdownSegment> segments = MarkdownParser::parse(
            QStringLiteral("Run:\n\n```python\nprint('hi')\n  x = 1\n```\n\nDone."));
        QCOMPARE(segments.size(), 3);
        QCOMPARE(segments.at(0).kind, MarkdownSegment::Kind::Prose);
        QCOMPARE(segments.at(1).kind, MarkdownSegment::Kind::Code);
        QCOMPARE(segments.at(1).language, QStringLiteral("python"));
        QCOMPARE(segments.at(1).code, QStringLiteral("print('hi')\n  x = 1"));
        QCOMPARE(segments.at(1).indent, 0);
        QCOMPARE(segments.at(2).units,
                 (QList<MarkdownUnit>{{enter(Kind::Paragraph), text("Done."), leave(Kind::Paragraph)}}));
        // Indented code has no language; markup inside code is code.
        const QList<MarkdownSegment> indented = MarkdownParser::parse(QStringLiteral("    **not bold** <b>"));
        QCOMPARE(indented.size(), 1);
        QCOMPARE(indented.first().code, QStringLiteral("**not bold** <b>"));
        QCOMPARE(indented.first().language, QString());
    }

    void aCodeBlockInAListSplitsTheListAroundIt()
    {
        const QList<MarkdownSegment> segments = MarkdownParser::parse(
            QStringLiteral("1. first\n\n   ```sh\n   ls\n   ```\n\n   more\n2. second"));
        QCOMPARE(segments.size(), 3);
        QCOMPARE(segments.at(1).code, QStringLiteral("ls"));
        QCOMPARE(segments.at(1).indent, 1);
        // The item goes on after the code without a second marker, and the list counts on.
        const MarkdownUnit after = segments.at(2).units.first();
        QCOMPARE(after.at(0), enter(Kind::OrderedList, 2, false));
        QCOMPARE(after.at(1), enter(Kind::ListItem, 0, true));
        QVERIFY(after.contains(text("second")));
    }

    void anUnclosedFenceIsCodeToTheEnd()
    {
        const QList<MarkdownSegment> segments = MarkdownParser::parse(
            QStringLiteral("Look:\n```js\nlet a = 1;\nlet b"));
        QCOMPARE(segments.size(), 2);
        QCOMPARE(segments.at(1).language, QStringLiteral("js"));
        QCOMPARE(segments.at(1).code, QStringLiteral("let a = 1;\nlet b"));
    }

    void linksKeepTheirTargetAndImagesOnlyTheirAltText()
    {
        QCOMPARE(prose(QStringLiteral("[site](https://example.com/a) and https://example.org")),
                 (QList<MarkdownUnit>{{enter(Kind::Paragraph),
                                       {Type::Enter, Kind::Link, false, 0, "https://example.com/a"},
                                       text("site"),
                                       leave(Kind::Link),
                                       text(" and "),
                                       {Type::Enter, Kind::Link, false, 0, "https://example.org"},
                                       text("https://example.org"),
                                       leave(Kind::Link),
                                       leave(Kind::Paragraph)}}));
        const QList<MarkdownSegment> image = MarkdownParser::parse(
            QStringLiteral("![a cat](https://tracker.example/cat.png \"title\")"));
        QCOMPARE(image.first().units,
                 (QList<MarkdownUnit>{{enter(Kind::Paragraph), enter(Kind::Image), text("a cat"), leave(Kind::Image),
                                       leave(Kind::Paragraph)}}));
        QVERIFY(!allText(image).contains(QStringLiteral("tracker")));
    }

    void rawHtmlIsText()
    {
        QCOMPARE(prose(QStringLiteral("<script>alert(1)</script>\n<img src=x>")),
                 (QList<MarkdownUnit>{{enter(Kind::Html),
                                       text(QStringLiteral("<script>alert(1)</script>") + QChar::LineSeparator
                                            + QStringLiteral("<img src=x>")),
                                       leave(Kind::Html)}}));
        QCOMPARE(prose(QStringLiteral("a <b>b</b> &copy; &#65;")),
                 (QList<MarkdownUnit>{
                     {enter(Kind::Paragraph), text(QStringLiteral("a <b>b</b> \u00a9 A")), leave(Kind::Paragraph)}}));
    }

    void deepNestingIsFlattened()
    {
        const QString markdown = QString(QStringLiteral("- ")).repeated(10000) + QStringLiteral("deep");
        const QList<MarkdownSegment> segments = MarkdownParser::parse(markdown);
        QVERIFY(allText(segments).contains(QStringLiteral("deep")));
        // Eight lists deep at most, each with its item: 16 steps, and a paragraph.
        QVERIFY2(maxDepth(segments) <= 2 * MarkdownParser::Limits().depth + 1,
                 qPrintable(QString::number(maxDepth(segments))));

        const QString quotes = QString(QStringLiteral(">")).repeated(10000) + QStringLiteral(" q");
        QVERIFY(maxDepth(MarkdownParser::parse(quotes)) <= MarkdownParser::Limits().depth + 1);
        const QString spans = QString(QStringLiteral("*_")).repeated(5000) + QStringLiteral("x")
            + QString(QStringLiteral("_*")).repeated(5000);
        QVERIFY(maxDepth(MarkdownParser::parse(spans)) <= MarkdownParser::Limits().spanDepth + 1);
    }

    void aHugeTableIsCutWithANote()
    {
        QString table = QStringLiteral("| a | b | c |\n|---|---|---|\n");
        while (table.size() < 1024 * 1024)
            table += QStringLiteral("| some cell | another cell | 12345 |\n");
        const int rows = static_cast<int>(table.count(QLatin1Char('\n'))) - 2;
        const QList<MarkdownSegment> segments = MarkdownParser::parse(table);
        QCOMPARE(segments.size(), 1);
        const MarkdownUnit &shown = segments.first().units.first();
        QCOMPARE(shown.count(enter(Kind::TableRow)) + shown.count(enter(Kind::TableRow, 0, true)),
                 MarkdownParser::Limits().tableRows + 1);
        const MarkdownUnit &note = segments.first().units.last();
        QCOMPARE(note.first(), enter(Kind::Note));
        QCOMPARE(note.at(1).text,
                 QStringLiteral("The table goes on with %1 more rows, not shown here.")
                     .arg(QLocale().toString(rows - MarkdownParser::Limits().tableRows)));
        // And the writer lays the shown part out as a table.
        QTextDocument document;
        MarkdownDocumentWriter writer(&document, testStyle());
        writer.show(segments.first().units);
        QTextTable *written = document.rootFrame()->childFrames().isEmpty()
            ? nullptr
            : qobject_cast<QTextTable *>(document.rootFrame()->childFrames().first());
        QVERIFY(written);
        QCOMPARE(written->rows(), MarkdownParser::Limits().tableRows + 1);
        QCOMPARE(written->columns(), 3);
    }

    void unbalancedFencesAndManyStepsStayBounded()
    {
        QString fences;
        for (int index = 0; index < 20000; ++index)
            fences += index % 3 == 0 ? QStringLiteral("```\n") : QStringLiteral("~~~~ x\n`` y ``\n");
        const QList<MarkdownSegment> segments = MarkdownParser::parse(fences);
        QVERIFY(!segments.isEmpty());
        // Past the step limit the rest is kept as plain text, nothing is dropped.
        QString words;
        for (int index = 0; index < 60000; ++index)
            words += QStringLiteral("*w%1* ").arg(index);
        const QList<MarkdownSegment> many = MarkdownParser::parse(words);
        QVERIFY(allText(many).contains(QStringLiteral("w59999")));
        QVERIFY(allText(many).contains(QStringLiteral("w0")));
    }

    void writerLaysOutEachConstruct()
    {
        Written written(QStringLiteral("# Big\n\nBody with `code` and **strong**.\n\n- one\n- two\n\n"
                                       "5. five\n6. six\n\n- [ ] open\n- [x] closed\n\n> said\n\n---\n\n"
                                       "| h1 | h2 |\n|----|---:|\n| c1 | c2 |\n\nEnd"));
        QCOMPARE(written.plain(),
                 QStringLiteral("Big\nBody with code and strong.\n\u2022 one\n\u2022 two\n5. five\n6. six\n"
                                "\u2022 \u2610 open\n\u2022 \u2611 closed\nsaid\n\nh1\nh2\nc1\nc2\nEnd"));
        QCOMPARE(written.formatOf(QStringLiteral("Big")).property(QTextFormat::FontPixelSize).toReal(),
                 testStyle().headingSize(1));
        QCOMPARE(written.formatOf(QStringLiteral("code")).fontFamilies().toStringList(),
                 QStringList{testStyle().monospaceFamily});
        QCOMPARE(written.formatOf(QStringLiteral("strong")).fontWeight(), int(QFont::Bold));
        QCOMPARE(written.formatOf(QStringLiteral("said")).foreground().color(), testStyle().secondary);
        QTextBlock rule = written.document.findBlock(written.plain().indexOf(QStringLiteral("said")) + 5);
        QVERIFY(rule.blockFormat().hasProperty(QTextFormat::BlockTrailingHorizontalRulerWidth));
        const QList<QTextFrame *> frames = written.document.rootFrame()->childFrames();
        QCOMPARE(frames.size(), 1);
        auto *table = qobject_cast<QTextTable *>(frames.first());
        QVERIFY(table);
        QCOMPARE(table->rows(), 2);
        QCOMPARE(table->columns(), 2);
        QCOMPARE(table->cellAt(1, 1).firstCursorPosition().block().text(), QStringLiteral("c2"));
        QCOMPARE(table->cellAt(1, 1).firstCursorPosition().blockFormat().alignment() & Qt::AlignHorizontal_Mask,
                 Qt::AlignRight);
        // The first block has no space above it; the markers hang in the margin.
        QCOMPARE(written.document.begin().blockFormat().topMargin(), 0.0);
        const QTextBlock item = written.document.findBlock(written.plain().indexOf(QStringLiteral("one")));
        QVERIFY(item.blockFormat().textIndent() < 0);
        QCOMPARE(item.blockFormat().leftMargin(), MarkdownStyle::indent);
    }

    void onlyWebAndMailLinksGetAnAnchor()
    {
        Written written(
            QStringLiteral("[web](https://example.com) [bad](javascript:alert(1)) [file](file:///etc/passwd) "
                           "www.example.net me@example.com [data](data:text/html,x)"));
        QCOMPARE(written.formatOf(QStringLiteral("web")).anchorHref(), QStringLiteral("https://example.com"));
        QVERIFY(written.formatOf(QStringLiteral("web")).isAnchor());
        QVERIFY(!written.formatOf(QStringLiteral("bad")).isAnchor());
        QVERIFY(!written.formatOf(QStringLiteral("file")).isAnchor());
        QVERIFY(!written.formatOf(QStringLiteral("data")).isAnchor());
        QCOMPARE(written.formatOf(QStringLiteral("www.example.net")).anchorHref(),
                 QStringLiteral("http://www.example.net"));
        QCOMPARE(written.formatOf(QStringLiteral("me@example.com")).anchorHref(),
                 QStringLiteral("mailto:me@example.com"));
        QCOMPARE(MarkdownDocumentWriter::safeLink(QStringLiteral("HTTPS://Example.com/x y")),
                 QStringLiteral("https://example.com/x%20y"));
        QCOMPARE(MarkdownDocumentWriter::safeLink(QStringLiteral("https://")), QString());
        QCOMPARE(MarkdownDocumentWriter::safeLink(QStringLiteral("/relative")), QString());
    }

    void imagesAreTheirAltTextAndNothingIsFetched()
    {
        Written written(QStringLiteral("See ![a chart](https://tracker.example/pixel.png) and ![](http://x/y.png)."));
        QCOMPARE(written.plain(), QStringLiteral("See a chart and image."));
        for (QTextBlock block = written.document.begin(); block.isValid(); block = block.next()) {
            for (auto fragment = block.begin(); !fragment.atEnd(); ++fragment)
                QVERIFY(!fragment.fragment().charFormat().isImageFormat());
        }
        QVERIFY(!written.document.toHtml().contains(QStringLiteral("tracker")));
        QVERIFY(written.formatOf(QStringLiteral("a chart")).fontItalic());
    }

    void rawHtmlIsShownAsWritten()
    {
        Written written(
            QStringLiteral("<b>not bold</b> <img src=\"http://x/y.png\">\n\n<table><tr><td>t</td></tr></table>"));
        QCOMPARE(written.plain(),
                 QStringLiteral("<b>not bold</b> <img src=\"http://x/y.png\">\n<table><tr><td>t</td></tr></table>"));
        QVERIFY(written.document.rootFrame()->childFrames().isEmpty());
        QCOMPARE(written.formatOf(QStringLiteral("not bold")).fontWeight(), int(QFont::Normal));
    }

    void growingProseRewritesOnlyItsLastUnit()
    {
        const QString start = QStringLiteral("# Title\n\nFirst paragraph.\n\n| a |\n|---|\n| 1 |\n\nSecond para");
        QTextDocument document;
        // Changes are announced to a document with a layout, as a view's has.
        document.documentLayout();
        MarkdownDocumentWriter writer(&document, testStyle());
        writer.show(prose(start));
        const QString before = document.toPlainText();
        const int lastStart = static_cast<int>(before.indexOf(QStringLiteral("Second")));
        QSignalSpy changes(&document, &QTextDocument::contentsChange);
        writer.show(prose(start + QStringLiteral("graph goes on")));
        QVERIFY(!changes.isEmpty());
        for (const QList<QVariant> &change : changes)
            QVERIFY2(change.at(0).toInt() >= lastStart - 1, qPrintable(QString::number(change.at(0).toInt())));
        QCOMPARE(document.toPlainText(), before.first(lastStart) + QStringLiteral("Second paragraph goes on"));
        // Written again whole, the document is the same.
        QTextDocument again;
        MarkdownDocumentWriter fresh(&again, testStyle());
        fresh.show(prose(start + QStringLiteral("graph goes on")));
        QCOMPARE(again.toPlainText(), document.toPlainText());
        QCOMPARE(again.blockCount(), document.blockCount());
        // Whatever way the last unit changes, the document is as if written whole.
        for (const QString &next : {QStringLiteral("graph goes on\n==="), QStringLiteral("graph\n\n- item"),
                                    QStringLiteral("graph\n\n- item\n- two **bold"),
                                    QStringLiteral("graph\n\n- item\n- two **bold** done\n  1. deeper")}) {
            writer.show(prose(start + next));
            QTextDocument whole;
            MarkdownDocumentWriter wholeWriter(&whole, testStyle());
            wholeWriter.show(prose(start + next));
            QCOMPARE(document.toHtml(), whole.toHtml());
        }
        QString table = QStringLiteral("| a | b |\n|---|---|\n| 1 | 2 |");
        writer.show(prose(table));
        table += QStringLiteral("\n| 3 | 4");
        writer.show(prose(table));
        QTextDocument whole;
        MarkdownDocumentWriter wholeWriter(&whole, testStyle());
        wholeWriter.show(prose(table));
        QCOMPARE(document.toHtml(), whole.toHtml());
        // A shorter text takes units away.
        writer.show(prose(QStringLiteral("# Title")));
        QCOMPARE(document.toPlainText(), QStringLiteral("Title"));
    }

    void segmentsFollowAGrowingReply()
    {
        StreamedReply reply(QStringLiteral("Intro\n\n```py\nprint(1"));
        AnswerList &answers = reply.answers;
        MarkdownSegmentList &segments = reply.segments;
        QCOMPARE(segments.rowCount(), 2);
        const QModelIndex code = segments.index(1);
        QCOMPARE(code.data(MarkdownSegmentList::IsCodeRole).toBool(), true);
        QCOMPARE(code.data(MarkdownSegmentList::CodeRole).toString(), QStringLiteral("print(1"));
        QCOMPARE(code.data(MarkdownSegmentList::LanguageRole).toString(), QStringLiteral("py"));

        QSignalSpy changed(&segments, &QAbstractItemModel::dataChanged);
        answers.setText(QStringLiteral("Intro\n\n```py\nprint(1)\n"));
        // A grown text waits for the next frame, then only the code block changes.
        QCOMPARE(changed.size(), 0);
        QVERIFY(changed.wait(1000));
        QCOMPARE(changed.size(), 1);
        QCOMPARE(changed.first().at(0).value<QModelIndex>().row(), 1);
        QCOMPARE(segments.index(1).data(MarkdownSegmentList::CodeRole).toString(), QStringLiteral("print(1)"));
        QCOMPARE(segments.shownText(), QStringLiteral("Intro\n\n```py\nprint(1)\n"));
    }

    void aFenceStillBeingTypedIsHeldBack()
    {
        QCOMPARE(MarkdownSegmentList::streamedPart(QStringLiteral("Here:\n``")), QStringLiteral("Here:\n"));
        QCOMPARE(MarkdownSegmentList::streamedPart(QStringLiteral("Here:\n   ~")), QStringLiteral("Here:\n"));
        QCOMPARE(MarkdownSegmentList::streamedPart(QStringLiteral("Here:\n``x")), QStringLiteral("Here:\n``x"));
        QCOMPARE(MarkdownSegmentList::streamedPart(QStringLiteral("a `b`")), QStringLiteral("a `b`"));

        StreamedReply reply(QStringLiteral("Here:\n``"));
        AnswerList &answers = reply.answers;
        MarkdownSegmentList &segments = reply.segments;
        QCOMPARE(segments.rowCount(), 1);
        QCOMPARE(segments.index(0).data(MarkdownSegmentList::UnitsRole).value<QList<MarkdownUnit>>(),
                 (QList<MarkdownUnit>{{enter(Kind::Paragraph), text("Here:"), leave(Kind::Paragraph)}}));
        // With the third backtick the fence opens: a code block, never raw backticks.
        answers.setText(QStringLiteral("Here:\n```"));
        QTRY_COMPARE(segments.rowCount(), 2);
        QCOMPARE(segments.index(1).data(MarkdownSegmentList::IsCodeRole).toBool(), true);
        // Once the reply ends, what was held back is shown.
        answers.setText(QStringLiteral("Here:\n``"));
        segments.setStreaming(false);
        QCOMPARE(segments.rowCount(), 1);
        QCOMPARE(segments.index(0).data(MarkdownSegmentList::UnitsRole).value<QList<MarkdownUnit>>(),
                 (QList<MarkdownUnit>{{enter(Kind::Paragraph), text("Here:"),
                                       text(QString(QChar::LineSeparator), Kind::Break), text("``"),
                                       leave(Kind::Paragraph)}}));
    }
};

int main(int argc, char *argv[])
{
    QGuiApplication application(argc, argv);
    MarkdownTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "MarkdownTest.moc"
