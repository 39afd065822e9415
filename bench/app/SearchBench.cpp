// Types a word into the sidebar's search, one character at a time, over a history of
// 1,000 conversations × 20 messages, and times how long the conversation filter takes
// to narrow the store's real list after each keystroke.
#include "ConversationFilter.h"
#include "SampleHistory.h"
#include "TestHome.h"
#include "engine/EngineStore.h"
#include "model/HistoryFile.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTextStream>
#include <algorithm>

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    TestHome home;
    HistoryFile::prepareFolder(home.dataFolder());
    HistoryFile::save(home.historyFile(), SampleHistory::make(1000, 20));

    EngineStore store;
    if (store.conversations().size() != 1000)
        qFatal("history did not load");
    ConversationFilter filter;
    filter.setConversations(store.conversationList());
    filter.count();
    // What focusing the search field does: fold the history for searching.
    QElapsedTimer preparing;
    preparing.start();
    filter.prepare();
    const double prepareMs = preparing.nsecsElapsed() / 1e6;

    const QString word = SampleHistory::rareWord;
    QList<double> keystrokes;
    QList<double> matching;
    QList<int> remaining;
    QList<double> firstRound;
    for (int round = 0; round < 5; ++round) {
        filter.setSearch(QString());
        for (qsizetype length = 1; length <= word.size(); ++length) {
            QElapsedTimer timer;
            timer.start();
            filter.setSearch(word.left(length));
            // What the sidebar's list reads next; the proxy may defer its work to here.
            const int left = filter.count();
            keystrokes.append(timer.nsecsElapsed() / 1e6);
            if (round == 0) {
                remaining.append(left);
                firstRound.append(keystrokes.last());
            }
            // The text matching alone, to tell it from the proxy's own work.
            timer.restart();
            int found = 0;
            for (const Conversation &conversation : store.conversations())
                found += ConversationFilter::matches(conversation, word.left(length)) ? 1 : 0;
            matching.append(timer.nsecsElapsed() / 1e6);
            if (found != filter.count())
                qFatal("the filter and the matching disagree");
        }
    }
    if (filter.count() != 10)
        qFatal("the search found %d conversations instead of 10", filter.count());

    QList<double> sorted = keystrokes;
    std::sort(sorted.begin(), sorted.end());
    std::sort(matching.begin(), matching.end());
    QStringList counts;
    for (const int count : remaining)
        counts.append(QString::number(count));
    QTextStream out(stdout);
    out << "search_word: " << word << '\n';
    out << "search_prepare_on_focus_ms: " << QString::number(prepareMs, 'f', 2) << '\n';
    out << "search_keystroke_ms_median: " << QString::number(sorted.at(sorted.size() / 2), 'f', 2) << '\n';
    out << "search_keystroke_ms_worst: " << QString::number(sorted.last(), 'f', 2) << '\n';
    out << "search_matching_only_ms_median: " << QString::number(matching.at(matching.size() / 2), 'f', 2) << '\n';
    out << "search_matching_only_ms_worst: " << QString::number(matching.last(), 'f', 2) << '\n';
    QStringList perKey;
    for (const double time : firstRound)
        perKey.append(QString::number(time, 'f', 1));
    out << "search_keystroke_ms_first_round: " << perKey.join(QLatin1Char(' ')) << '\n';
    out << "search_conversations_left_per_keystroke: " << counts.join(QLatin1Char(' ')) << '\n';
    return 0;
}
