// Saves a large history over and over, alternating between two versions, until killed.
// The faults test kills it mid-save and checks the file is always one version or the other.
#include "model/HistoryFile.h"

#include <QCoreApplication>
#include <cstdio>

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    if (argc < 2)
        return 2;
    const QString file = QString::fromLocal8Bit(argv[1]);
    QList<Conversation> history;
    const QString text = QStringLiteral("Some reply text that takes room on disk. ").repeated(20);
    for (int index = 0; index < 300; ++index) {
        Conversation conversation;
        for (int message = 0; message < 10; ++message)
            conversation.messages.append(ChatMessage{QUuid::createUuid(), "assistant", text, std::nullopt});
        history.append(conversation);
    }
    QList<Conversation> longer = history;
    longer.append(Conversation());
    for (long round = 0;; ++round) {
        HistoryFile::save(file, round % 2 ? longer : history);
        if (round == 0) {
            std::puts("saved");
            std::fflush(stdout);
        }
    }
}
