// The sidebar's conversation filter, without the window.
#include "ConversationFilter.h"
#include "TestHome.h"
#include "ViewHarness.h"
#include "chat/ConversationListModel.h"
#include "model/HistoryFile.h"

#include <QApplication>
#include <QSignalSpy>
#include <QtTest>

class ConversationFilterTest : public QObject {
    Q_OBJECT

private:
    static QStringList titles(const ConversationFilter &filter)
    {
        QStringList found;
        for (int row = 0; row < filter.rowCount(); ++row)
            found.append(filter.index(row, 0).data(ConversationListModel::TitleRole).toString());
        return found;
    }

private slots:
    void matchingRules()
    {
        const Conversation notes = ViewHarness::conversation("Notes", {"Buy MILK", "ok"});
        QVERIFY(ConversationFilter::matches(notes, QString()));
        QVERIFY(ConversationFilter::matches(notes, QStringLiteral("notes")));
        QVERIFY(ConversationFilter::matches(notes, QStringLiteral("milk")));
        QVERIFY(ConversationFilter::matches(notes, QStringLiteral(" ")));
        QVERIFY(!ConversationFilter::matches(notes, QStringLiteral("  ")));
        QVERIFY(!ConversationFilter::matches(notes, QStringLiteral("bread")));
        // Not trimmed: a trailing space must be there too.
        QVERIFY(!ConversationFilter::matches(notes, QStringLiteral("notes ")));
        QVERIFY(ConversationFilter::matches(ViewHarness::conversation(QString::fromUtf8("Über"), {}),
                                            QString::fromUtf8("über")));
    }

    void followsTheStoreAndItsChanges()
    {
        TestHome home;
        HistoryFile::prepareFolder(home.dataFolder());
        QVERIFY(HistoryFile::save(home.historyFile(),
                                  {ViewHarness::conversation("Alpha", {"one"}), ViewHarness::conversation("Beta", {"two"}),
                                   ViewHarness::conversation("Gamma", {"one more"})}));
        EngineStore store;
        ConversationFilter filter;
        filter.setStore(&store);
        QCOMPARE(titles(filter), (QStringList{"Alpha", "Beta", "Gamma"}));
        QSignalSpy counted(&filter, &ConversationFilter::countChanged);
        filter.setSearch(QStringLiteral("ONE"));
        QCOMPARE(titles(filter), (QStringList{"Alpha", "Gamma"}));
        QCOMPARE(filter.count(), 2);
        QVERIFY(!counted.isEmpty());
        // A new conversation has no match until it gets one.
        store.newChat();
        QCOMPARE(titles(filter), (QStringList{"Alpha", "Gamma"}));
        filter.setSearch(QString());
        QCOMPARE(titles(filter), (QStringList{"New conversation", "Alpha", "Beta", "Gamma"}));
    }

    void aLargeHistoryFiltersCorrectly()
    {
        TestHome home;
        QList<Conversation> history;
        for (int index = 0; index < 1000; ++index) {
            QStringList texts;
            for (int message = 0; message < 20; ++message)
                texts.append(QStringLiteral("Message %1 of conversation %2 about ordinary things.").arg(message).arg(index));
            if (index == 777)
                texts[19] += QStringLiteral(" Rare Needle.");
            history.append(ViewHarness::conversation(QStringLiteral("Conversation %1").arg(index), texts));
        }
        HistoryFile::prepareFolder(home.dataFolder());
        QVERIFY(HistoryFile::save(home.historyFile(), history));
        EngineStore store;
        ConversationFilter filter;
        filter.setStore(&store);
        QCOMPARE(filter.count(), 1000);
        filter.setSearch(QStringLiteral("rare needle"));
        QCOMPARE(titles(filter), QStringList{"Conversation 777"});
        filter.setSearch(QStringLiteral("conversation 99"));
        QCOMPARE(filter.count(), 11);  // 99 and 990 to 999
    }
};

int main(int argc, char *argv[])
{
    ViewHarness::prepareProcess();
    QApplication application(argc, argv);
    ConversationFilterTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "ConversationFilterTest.moc"
