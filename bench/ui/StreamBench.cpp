// Streams a reply at about 1,000 tokens a second from the fake engine into the real
// window (offscreen) and reports frame intervals, how late a 10 ms timer ran (how well
// the window keeps answering), and whether any text was lost on the way to the screen.
// With "markdown" as the fifth argument the reply is Markdown-heavy: headings, lists,
// tables and code blocks, cut into word-sized tokens; with "code", one long code block.
#include "EventLoopWait.h"
#include "ViewHarness.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTimer>
#include <algorithm>
#include <cstdio>

namespace {

struct Figures {
    double median = 0;
    double p95 = 0;
    double worst = 0;
};

Figures summarize(QList<double> values)
{
    Figures figures;
    if (values.isEmpty())
        return figures;
    std::sort(values.begin(), values.end());
    figures.median = values.at(values.size() / 2);
    figures.p95 = values.at(std::min<qsizetype>(values.size() - 1, values.size() * 95 / 100));
    figures.worst = values.last();
    return figures;
}

const QRegularExpression wordToken(QStringLiteral("\\S+\\s*|\\s+"));

// A reply that is one long code block, left open as a model writing it would, of at
// least that many word-sized tokens, as the tokens.
QStringList codeTokens(int tokens)
{
    QStringList pieces{QStringLiteral("```cpp\n")};
    for (int line = 0; pieces.size() < tokens; ++line) {
        auto matches = wordToken.globalMatch(
            QStringLiteral("    int value%1 = compute(value%1, %1); // step %1\n").arg(line));
        while (matches.hasNext())
            pieces.append(matches.next().captured());
    }
    return pieces;
}

// Markdown-heavy text of at least that many word-sized tokens, as the tokens.
QStringList markdownTokens(int tokens)
{
    QStringList pieces;
    const QRegularExpression &token = wordToken;
    for (int section = 0; pieces.size() < tokens; ++section) {
        const QString text =
            QStringLiteral("## Part %1\n\nThe **main** idea, with `code` and *emphasis*, comes first.\n\n"
                           "1. Step one of part %1.\n2. Step two, with a [link](https://example.com).\n"
                           "   - a detail\n   - another detail\n\n| key | value | note |\n|-----|------:|------|\n"
                           "| a%1 | %1 | first |\n| b%1 | %2 | second |\n\n```cpp\nint part%1(int value)\n{\n"
                           "    return value * %1;\n}\n```\n\n> Quoted remark %1.\n\n")
                .arg(section)
                .arg(section * 7);
        auto matches = token.globalMatch(text);
        while (matches.hasNext())
            pieces.append(matches.next().captured());
    }
    return pieces;
}

} // namespace

int main(int argc, char *argv[])
{
    ViewHarness::prepareProcess();
    ViewHarness::setListModelChecks(false);
    QApplication application(argc, argv);
    const int tokens = argc > 1 ? QByteArray(argv[1]).toInt() : 4000;
    // "hidden": the same run with the window hidden, to tell drawing from the rest.
    const bool hidden = argc > 2 && QByteArray(argv[2]) == "hidden";
    // Tokens go out in small bursts (one event per token inside a burst) every
    // burstMs. The fake engine paces bursts on the same thread as the window, so a
    // nominal 10 ms comes out a little later; 12 tokens a burst lands close to 1,000 a
    // second. The rate actually reached is printed.
    const int burstMs = argc > 3 ? QByteArray(argv[3]).toInt() : 10;
    const int tokensPerBurst = argc > 4 ? QByteArray(argv[4]).toInt() : 12;
    // "markdown": the Markdown-heavy reply; "code": one long code block.
    const QByteArray kind = argc > 5 ? QByteArray(argv[5]) : QByteArray();
    const bool code = kind == "code";
    const bool markdown = kind == "markdown" || code;
    const QStringList markdownText = code ? codeTokens(tokens) : markdown ? markdownTokens(tokens) : QStringList();

    ViewHarness view(FakeEngine::stateJson(QStringLiteral("bench.gguf")));
    if (!view.refresh()) {
        std::fprintf(stderr, "stream_bench: the fake engine did not answer\n");
        return 1;
    }

    if (hidden)
        view.window()->hide();

    QList<QByteArray> lines;
    QString expected;
    for (int index = 0; index < tokens; ++index) {
        const QString token = markdown ? markdownText.at(index)
            : (index % 17 == 16)       ? QStringLiteral("word%1.\n").arg(index)
                                       : QStringLiteral("word%1 ").arg(index);
        expected += token;
        if (index % tokensPerBurst == 0)
            lines.append(QByteArray());
        lines.last() += ViewHarness::delta(token);
    }
    lines.append("data: [DONE]\n\n");
    view.fake().route("POST", "/v1/chat/completions", FakeResponse::stream(lines, burstMs));

    QList<double> frames;
    QElapsedTimer frameClock;
    QObject::connect(view.window(), &QQuickWindow::frameSwapped, [&] {
        if (frameClock.isValid())
            frames.append(frameClock.nsecsElapsed() / 1e6);
        frameClock.restart();
    });

    QList<double> lateness;
    QElapsedTimer tickClock;
    QTimer ticker;
    ticker.setTimerType(Qt::PreciseTimer);
    ticker.setInterval(10);
    QObject::connect(&ticker, &QTimer::timeout, [&] {
        if (tickClock.isValid())
            lateness.append(std::max(0.0, tickClock.nsecsElapsed() / 1e6 - 10.0));
        tickClock.restart();
    });

    QElapsedTimer total;
    total.start();
    ticker.start();
    view.store().setPrompt(QStringLiteral("Stream, please."));
    view.store().send();
    EventLoopWait replyDone([&] { return !view.store().generating(); });
    QObject::connect(&view.store(), &EngineStore::generatingChanged, [&] { replyDone.check(); });
    const bool finished = replyDone.run(120000);
    ticker.stop();
    const double seconds = total.nsecsElapsed() / 1e9;
    view.settle();

    const QString stored = view.store().messages().isEmpty() ? QString() : view.store().messages().last().text;
    // For the code reply, the code block's own text: all of it but the fence line (the
    // reply stops in the middle of a line); for the others, the reply's text as shown.
    const QList<QQuickItem *> shown = view.visibleItems(code ? QStringLiteral("codeText")
                                                             : QStringLiteral("messageText"));
    const QString onScreen = shown.isEmpty() ? QString() : ViewHarness::text(shown.last());
    const QString expectedOnScreen = code ? expected.sliced(markdownText.first().size()) : expected;
    const bool storeComplete = stored == expected;
    const bool screenComplete = onScreen == expectedOnScreen;

    const Figures frame = summarize(frames);
    const Figures late = summarize(lateness);
    std::printf("tokens streamed:      %d in %.2f s (%.0f tokens/s)\n", tokens, seconds, tokens / seconds);
    std::printf("reply finished:       %s\n", finished ? "yes" : "no");
    std::printf("frames:               %lld, interval median %.1f ms, p95 %.1f ms, worst %.1f ms\n",
                static_cast<long long>(frames.size()), frame.median, frame.p95, frame.worst);
    std::printf("10 ms timer lateness: median %.1f ms, p95 %.1f ms, worst %.1f ms\n", late.median, late.p95,
                late.worst);
    std::printf("text in the store:    %s (%lld of %lld characters)\n", storeComplete ? "complete" : "LOST TEXT",
                static_cast<long long>(stored.size()), static_cast<long long>(expected.size()));
    std::printf("text on screen:       %s (%lld characters)\n", screenComplete ? "complete" : "LOST TEXT",
                static_cast<long long>(onScreen.size()));
    return finished && storeComplete && screenComplete ? 0 : 2;
}
