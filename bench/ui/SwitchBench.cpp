// Switches the real window (offscreen) between two conversations of 400 messages each,
// half of them Markdown replies, and reports the time from the click on a sidebar row
// to the next frame, and how many message blocks the transcript made for it.
#include "EventLoopWait.h"
#include "ViewHarness.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QtTest>
#include <algorithm>
#include <cstdio>

namespace {

QString markdownReply(int index)
{
    return QStringLiteral(
               "## Answer %1\n\nHere is what **matters**, with `inline code` and a "
               "[link](https://example.com):\n\n1. The first point, *emphasised*.\n2. The second point.\n"
               "   - a nested detail\n3. The third point.\n\n| name | value | note |\n|------|------:|------|\n"
               "| alpha | 1 | first |\n| beta | 22 | second |\n\n```python\ndef answer(number):\n"
               "    return number * %1\n```\n\n> A closing remark in a quote.")
        .arg(index);
}

Conversation longConversation(const QString &title)
{
    QStringList texts;
    for (int index = 0; index < 400; ++index)
        texts.append(index % 2 == 0 ? QStringLiteral("Question %1: how does this work?").arg(index)
                                    : markdownReply(index));
    return ViewHarness::conversation(title, texts);
}

} // namespace

int main(int argc, char *argv[])
{
    ViewHarness::prepareProcess();
    ViewHarness::setListModelChecks(false);
    QApplication application(argc, argv);
    const int switches = argc > 1 ? QByteArray(argv[1]).toInt() : 20;

    ViewHarness view(FakeEngine::stateJson(), {longConversation("First"), longConversation("Second")});
    QList<double> times;
    qsizetype mostBlocks = 0;
    for (int round = 0; round < switches; ++round) {
        const QList<QQuickItem *> rows = view.visibleItems(QStringLiteral("conversationRow"));
        if (rows.size() < 2) {
            std::fprintf(stderr, "switch_bench: the sidebar shows %lld rows\n", static_cast<long long>(rows.size()));
            return 1;
        }
        bool swapped = false;
        EventLoopWait nextFrame([&] { return swapped; });
        QElapsedTimer clock;
        const auto connection = QObject::connect(view.window(), &QQuickWindow::frameSwapped, [&] {
            if (!swapped)
                times.append(clock.nsecsElapsed() / 1e6);
            swapped = true;
            nextFrame.check();
        });
        QQuickItem *row = rows.at(1 - round % 2);
        const QPoint center = row->mapToScene(QPointF(row->width() / 2, row->height() / 2)).toPoint();
        clock.start();
        QTest::mouseClick(view.window(), Qt::LeftButton, Qt::NoModifier, center);
        if (!nextFrame.run(10000)) {
            std::fprintf(stderr, "switch_bench: no frame after the click\n");
            return 1;
        }
        QObject::disconnect(connection);
        view.settle();
        mostBlocks = std::max(mostBlocks, view.items(QStringLiteral("messageBlock")).size());
    }
    std::sort(times.begin(), times.end());
    std::printf("switch_to_frame_ms_median: %.1f\n", times.at(times.size() / 2));
    std::printf("switch_to_frame_ms_worst: %.1f\n", times.last());
    std::printf("switches: %lld\n", static_cast<long long>(times.size()));
    std::printf("message_blocks_made_at_most: %lld of 400\n", static_cast<long long>(mostBlocks));
    return 0;
}
