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
        QVERIFY(ConversationFilter::matches(ViewHarness::conversation(QStringLiteral("\u00dcber"), {}),
                                            QStringLiteral("\u00fcber")));
    }

    void followsTheStoreAndItsChanges()
    {
        TestHome home;
        HistoryFile::prepareFolder(home.dataFolder());
        QVERIFY(
            HistoryFile::save(home.historyFile(),
                              {ViewHarness::conversation("Alpha", {"one"}), ViewHarness::conversation("Beta", {"two"}),
                               ViewHarness::conversation("Gamma", {"one more"})}));
        EngineStore store;
        ConversationFilter filter;
        filter.setConversations(store.conversationList());
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

    void narrowingAsYouTypeStillSeesChangedConversations()
    {
        TestHome home;
        HistoryFile::prepareFolder(home.dataFolder());
        QVERIFY(HistoryFile::save(home.historyFile(),
                                  {ViewHarness::conversation("Alpha", {"hello", "plain words"}),
                                   ViewHarness::conversation("Beta", {"zebra crossing", "ok"})}));
        EngineStore store;
        ConversationFilter filter;
        filter.setConversations(store.conversationList());
        // Folded ahead, as when the search field takes the focus.
        filter.prepare();
        filter.setSearch(QStringLiteral("ze"));
        QCOMPARE(titles(filter), QStringList{"Beta"});
        // Alpha was passed over for "ze"; its reply now holds the word, and the longer
        // search must find it.
        const Conversation alpha = store.conversations().first();
        store.setSelectedID(alpha.id);
        store.updateAssistant(alpha.messages.last().id, QStringLiteral("a ZEBRA at last"));
        QCOMPARE(titles(filter), (QStringList{"Alpha", "Beta"}));
        filter.setSearch(QStringLiteral("zeb"));
        QCOMPARE(titles(filter), (QStringList{"Alpha", "Beta"}));
        filter.setSearch(QStringLiteral("zebra c"));
        QCOMPARE(titles(filter), QStringList{"Beta"});
        // Deleting back widens the search again.
        filter.setSearch(QStringLiteral("zebra"));
        QCOMPARE(titles(filter), (QStringList{"Alpha", "Beta"}));
        filter.setSearch(QStringLiteral("hello"));
        QCOMPARE(titles(filter), QStringList{"Alpha"});
    }

    void aMatchNeverSpansTwoTexts()
    {
        const Conversation conversation = ViewHarness::conversation("Title", {"first", "second"});
        QVERIFY(!ConversationFilter::matches(conversation, QStringLiteral("first second")));
        QVERIFY(
            !ConversationFilter::matches(conversation, QStringLiteral("first") + QChar(0) + QStringLiteral("second")));
        QVERIFY(!ConversationFilter::matches(conversation, QStringLiteral("title") + QChar(0)));
        QVERIFY(ConversationFilter::matches(conversation, QStringLiteral("irs")));
        // Non-ASCII text folds too, in the text and in the search.
        const Conversation accents = ViewHarness::conversation(QStringLiteral("Caf\u00c9 notes"),
                                                               {QStringLiteral("\u00c5NGSTR\u00d6M units")});
        QVERIFY(ConversationFilter::matches(accents, QStringLiteral("caf\u00e9")));
        QVERIFY(ConversationFilter::matches(accents, QStringLiteral("\u00e5ngstr\u00f6m")));
        QVERIFY(ConversationFilter::matches(accents, QStringLiteral("STR\u00d6M UNITS")));
    }

    void aLargeHistoryFiltersCorrectly()
    {
        TestHome home;
        QList<Conversation> history;
        for (int index = 0; index < 1000; ++index) {
            QStringList texts;
            for (int message = 0; message < 20; ++message)
                texts.append(
                    QStringLiteral("Message %1 of conversation %2 about ordinary things.").arg(message).arg(index));
            if (index == 777)
                texts[19] += QStringLiteral(" Rare Needle.");
            history.append(ViewHarness::conversation(QStringLiteral("Conversation %1").arg(index), texts));
        }
        HistoryFile::prepareFolder(home.dataFolder());
        QVERIFY(HistoryFile::save(home.historyFile(), history));
        EngineStore store;
        ConversationFilter filter;
        filter.setConversations(store.conversationList());
        QCOMPARE(filter.count(), 1000);
        filter.setSearch(QStringLiteral("rare needle"));
        QCOMPARE(titles(filter), QStringList{"Conversation 777"});
        filter.setSearch(QStringLiteral("conversation 99"));
        QCOMPARE(filter.count(), 11); // 99 and 990 to 999
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
