// Loads and saves a history of 1,000 conversations × 20 messages through the real
// store and prints the median of several rounds, in milliseconds.
#include "TestHome.h"
#include "engine/EngineStore.h"
#include "model/HistoryFile.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTextStream>
#include <algorithm>

namespace {

QList<Conversation> makeHistory(int conversations, int messages)
{
    QList<Conversation> history;
    const QString paragraph = QStringLiteral("A reply of ordinary length, with a few sentences in it. ").repeated(6);
    for (int index = 0; index < conversations; ++index) {
        Conversation conversation;
        conversation.title = QStringLiteral("Conversation %1 about something").arg(index);
        for (int message = 0; message < messages; ++message) {
            const bool user = message % 2 == 0;
            conversation.messages.append(ChatMessage{QUuid::createUuid(), user ? "user" : "assistant",
                                                     user ? QStringLiteral("Question %1?").arg(message) : paragraph,
                                                     std::nullopt});
        }
        history.append(conversation);
    }
    return history;
}

double median(QList<double> values)
{
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 2);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    TestHome home;
    HistoryFile::prepareFolder(home.dataFolder());
    HistoryFile::save(home.historyFile(), makeHistory(1000, 20));

    QList<double> loads;
    QList<double> saves;
    for (int round = 0; round < 7; ++round) {
        QElapsedTimer timer;
        timer.start();
        EngineStore store;
        loads.append(timer.nsecsElapsed() / 1e6);
        if (store.conversations().size() != 1000)
            qFatal("history did not load");
        timer.restart();
        store.save();
        saves.append(timer.nsecsElapsed() / 1e6);
    }
    QTextStream out(stdout);
    out << "history_load_ms " << QString::number(median(loads), 'f', 1) << '\n';
    out << "history_save_ms " << QString::number(median(saves), 'f', 1) << '\n';
    out << "history_file_bytes " << QFileInfo(home.historyFile()).size() << '\n';
    return 0;
}
