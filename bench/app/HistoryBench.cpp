// Loads and saves a history of 1,000 conversations × 20 messages through the real
// store and prints the median of several rounds as "figure: value" lines.
#include "SampleHistory.h"
#include "TestHome.h"
#include "engine/EngineStore.h"
#include "model/HistoryFile.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QTextStream>
#include <algorithm>

namespace {

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
    HistoryFile::save(home.historyFile(), SampleHistory::make(1000, 20));

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
    out << "history_load_ms: " << QString::number(median(loads), 'f', 1) << '\n';
    out << "history_save_ms: " << QString::number(median(saves), 'f', 1) << '\n';
    out << "history_file_bytes: " << QFileInfo(home.historyFile()).size() << '\n';
    return 0;
}
