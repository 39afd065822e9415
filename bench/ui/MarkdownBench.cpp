// How long a reply's Markdown takes to parse (md4c) and to write into a text document
// and lay it out, for awkward replies: deep nesting, a 1 MB table, unbalanced fences,
// many spans, and a long ordinary reply. The window does both on its thread, so these
// are what a frame could be held up by. Median of 5 runs each, in ms.
#include "MarkdownDocumentWriter.h"
#include "MarkdownParser.h"

#include <QAbstractTextDocumentLayout>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QTextDocument>
#include <algorithm>
#include <cstdio>

namespace {

double median(QList<double> values)
{
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 2);
}

void measure(const char *name, const QString &markdown)
{
    MarkdownStyle style;
    style.text = Qt::black;
    style.secondary = Qt::gray;
    style.link = Qt::blue;
    style.codeFill = Qt::lightGray;
    style.hairline = Qt::gray;
    QList<double> parse;
    QList<double> write;
    for (int run = 0; run < 5; ++run) {
        QElapsedTimer clock;
        clock.start();
        const QList<MarkdownSegment> segments = MarkdownParser::parse(markdown);
        parse.append(clock.nsecsElapsed() / 1e6);
        clock.restart();
        // Every run of prose in a document of its own, as the transcript does, laid out
        // at the transcript's width.
        for (const MarkdownSegment &segment : segments) {
            QTextDocument document;
            document.setTextWidth(800);
            MarkdownDocumentWriter writer(&document, style);
            writer.show(segment.units);
            document.documentLayout()->documentSize();
        }
        write.append(clock.nsecsElapsed() / 1e6);
    }
    std::printf("%s_bytes: %lld\n", name, static_cast<long long>(markdown.toUtf8().size()));
    std::printf("%s_parse_ms: %.2f\n", name, median(parse));
    std::printf("%s_write_layout_ms: %.2f\n", name, median(write));
}

} // namespace

int main(int argc, char *argv[])
{
    QGuiApplication application(argc, argv);

    measure("nested_lists", QString(QStringLiteral("- ")).repeated(10000) + QStringLiteral("deep"));

    QString table = QStringLiteral("| a | b | c |\n|---|---|---|\n");
    while (table.size() < 1024 * 1024)
        table += QStringLiteral("| some cell | another cell | 12345 |\n");
    measure("table_1mb", table);

    QString fences;
    for (int index = 0; index < 20000; ++index)
        fences += index % 3 == 0 ? QStringLiteral("```\n") : QStringLiteral("~~~~ x\n`` y ``\n");
    measure("unbalanced_fences", fences);

    QString spans;
    for (int index = 0; index < 20000; ++index)
        spans += QStringLiteral("*w%1* **b** `c` ").arg(index);
    measure("many_spans", spans);

    QString reply;
    for (int part = 0; reply.size() < 20000; ++part)
        reply += QStringLiteral("## Part %1\n\nThe **main** idea, with `code` and *emphasis*.\n\n1. One.\n2. Two.\n"
                                "   - detail\n\n| k | v |\n|---|--:|\n| a | %1 |\n\n```cpp\nint x = %1;\n```\n\n")
                     .arg(part);
    measure("ordinary_reply_20kb", reply);
    return 0;
}
