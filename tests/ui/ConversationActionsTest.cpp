// Managing conversations in the window: renaming in place, the row menu, deleting with
// the undo bar, pinning, regenerating and editing messages, the system prompt editors
// and the window's keyboard shortcuts.
#include "ScriptedFileChooser.h"
#include "ViewHarness.h"
#include "chat/ConversationListModel.h"
#include "model/HistoryFile.h"

#include <QApplication>
#include <QClipboard>
#include <QJsonArray>
#include <QJsonObject>
#include <QSettings>
#include <QtTest>

class ConversationActionsTest : public QObject {
    Q_OBJECT

private:
    // The sidebar row that shows that title.
    static QQuickItem *row(ViewHarness &view, const QString &title)
    {
        for (QQuickItem *item : view.visibleItems("conversationRow")) {
            if (item->property("title").toString() == title)
                return item;
        }
        return nullptr;
    }

    static QPoint centre(QQuickItem *item)
    {
        return item->mapToScene(QPointF(item->width() / 2, item->height() / 2)).toPoint();
    }

    static void rightClick(ViewHarness &view, QQuickItem *item)
    {
        QVERIFY2(item, "no item to right-click");
        QTest::mouseClick(view.window(), Qt::RightButton, Qt::NoModifier, centre(item));
        view.settle();
    }

    static bool menuShown(ViewHarness &view)
    {
        QObject *menu = view.object("conversationMenu");
        return menu && menu->property("opened").toBool();
    }

    // The messages of the last chat request, as sent.
    static QJsonArray lastSentMessages(ViewHarness &view)
    {
        const auto requests = view.fake().requestsTo("/v1/chat/completions");
        return requests.isEmpty() ? QJsonArray() : requests.last().json().value("messages").toArray();
    }

    static QJsonObject sent(const QString &role, const QString &content)
    {
        return QJsonObject{{"role", role}, {"content", content}};
    }

    static void answerWith(ViewHarness &view, const QString &reply)
    {
        view.fake().route("POST", "/v1/chat/completions",
                          FakeResponse::stream({ViewHarness::delta(reply), "data: [DONE]\n"}));
    }

    static bool idle(ViewHarness &view)
    {
        return view.waitFor([&] { return !view.store().generating(); });
    }

private slots:
    void init() { ViewHarness::resetSettings(); }

    // --- renaming ----------------------------------------------------------------------

    void aDoubleClickRenamesInPlace_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("title");
        QTest::newRow("latin") << QStringLiteral("Lisbon, May") << QStringLiteral("Lisbon, May");
        QTest::newRow("emoji") << QStringLiteral("\U0001F1F5\U0001F1F9 Lisbon \U0001F370")
                               << QStringLiteral("\U0001F1F5\U0001F1F9 Lisbon \U0001F370");
        QTest::newRow("right to left")
            << QStringLiteral("  \u05D8\u05D9\u05D5\u05DC \u05DC\u05DC\u05D9\u05E1\u05D1\u05D5\u05DF ")
            << QStringLiteral("\u05D8\u05D9\u05D5\u05DC \u05DC\u05DC\u05D9\u05E1\u05D1\u05D5\u05DF");
        QTest::newRow("blank keeps the old") << QStringLiteral("   ") << QStringLiteral("Trip to Lisbon");
    }

    void aDoubleClickRenamesInPlace()
    {
        QFETCH(QString, typed);
        QFETCH(QString, title);
        ViewHarness view(FakeEngine::stateJson(), ViewHarness::threeConversations());
        QQuickItem *trip = row(view, "Trip to Lisbon");
        QTest::mouseDClick(view.window(), Qt::LeftButton, Qt::NoModifier, centre(trip));
        view.settle();
        QQuickItem *field = view.visibleItems("renameField").value(0);
        QVERIFY(field);
        QVERIFY(field->hasActiveFocus());
        QCOMPARE(WindowDriver::text(field), QStringLiteral("Trip to Lisbon"));
        field->setProperty("text", typed);
        view.key(Qt::Key_Return);
        QVERIFY(view.visibleItems("renameField").isEmpty());
        QCOMPARE(view.listedTitles().first(), title);
        QCOMPARE(HistoryFile::load(view.home().historyFile())->first().title, title);
    }

    void escapeLeavesTheTitleAsItWas()
    {
        ViewHarness view(FakeEngine::stateJson(), ViewHarness::threeConversations());
        QTest::mouseDClick(view.window(), Qt::LeftButton, Qt::NoModifier, centre(row(view, "Taxes")));
        view.settle();
        QQuickItem *field = view.visibleItems("renameField").value(0);
        QVERIFY(field);
        view.typeInto(field, QStringLiteral("Nope"));
        view.key(Qt::Key_Escape);
        QVERIFY(view.visibleItems("renameField").isEmpty());
        QCOMPARE(view.listedTitles(), (QStringList{"Trip to Lisbon", "Garden plans", "Taxes"}));
    }

    void renameFromTheMenu()
    {
        ViewHarness view(FakeEngine::stateJson(), ViewHarness::threeConversations());
        rightClick(view, row(view, "Garden plans"));
        QVERIFY(menuShown(view));
        QCOMPARE(WindowDriver::text(view.item("renameItem")), QStringLiteral("Rename"));
        QCOMPARE(WindowDriver::text(view.item("pinItem")), QStringLiteral("Pin"));
        QCOMPARE(WindowDriver::text(view.item("deleteItem")), QStringLiteral("Delete"));
        view.click(view.item("renameItem"));
        QVERIFY(!menuShown(view));
        QQuickItem *field = view.visibleItems("renameField").value(0);
        QVERIFY(field);
        QVERIFY(view.waitFor([&] { return field->hasActiveFocus(); }));
        view.typeInto(field, QStringLiteral("Veg"));
        view.key(Qt::Key_Enter);
        QCOMPARE(view.listedTitles(), (QStringList{"Trip to Lisbon", "Veg", "Taxes"}));
    }

    // The menu key opens the selected row's menu when the list has the keyboard.
    void theMenuKeyOpensTheSelectedRowsMenu()
    {
        ViewHarness view(FakeEngine::stateJson(), ViewHarness::threeConversations());
        view.click(row(view, "Taxes"));
        view.key(Qt::Key_Menu);
        QVERIFY(menuShown(view));
        QCOMPARE(view.object("conversationMenu")->property("conversationId").toString(), view.store().selectedIDText());
        view.key(Qt::Key_Escape);
        QVERIFY(!menuShown(view));

        // F2 renames it.
        view.click(row(view, "Taxes"));
        view.key(Qt::Key_F2);
        QQuickItem *field = view.visibleItems("renameField").value(0);
        QVERIFY(field);
        QCOMPARE(WindowDriver::text(field), QStringLiteral("Taxes"));
        view.key(Qt::Key_Escape);
        QVERIFY(view.visibleItems("renameField").isEmpty());
    }

    // --- deleting and the undo bar -----------------------------------------------------

    void deleteShowsTheUndoBarAndUndoPutsItBack()
    {
        ViewHarness view(FakeEngine::stateJson(), ViewHarness::threeConversations());
        QVERIFY(!WindowDriver::shown(view.item("undoBar")));
        view.click(row(view, "Garden plans"));
        rightClick(view, row(view, "Garden plans"));
        view.click(view.item("deleteItem"));
        QCOMPARE(view.listedTitles(), (QStringList{"Trip to Lisbon", "Taxes"}));
        QCOMPARE(view.store().conversations().at(view.store().selectedIndex()).title, QStringLiteral("Taxes"));
        QVERIFY(WindowDriver::shown(view.item("undoBar")));
        QCOMPARE(WindowDriver::text(view.item("undoText")), QStringLiteral("Deleted \u201cGarden plans\u201d"));
        QCOMPARE(HistoryFile::load(view.home().historyFile())->size(), 2);

        view.click(view.item("undoButton"));
        QVERIFY(!WindowDriver::shown(view.item("undoBar")));
        QCOMPARE(view.listedTitles(), (QStringList{"Trip to Lisbon", "Garden plans", "Taxes"}));
        QCOMPARE(view.store().conversations().at(view.store().selectedIndex()).title, QStringLiteral("Garden plans"));
        QCOMPARE(HistoryFile::load(view.home().historyFile())->size(), 3);
    }

    void theDeleteKeyRemovesTheSelectedRow()
    {
        ViewHarness view(FakeEngine::stateJson(), ViewHarness::threeConversations());
        view.click(row(view, "Taxes"));
        view.key(Qt::Key_Delete);
        QCOMPARE(view.listedTitles(), (QStringList{"Trip to Lisbon", "Garden plans"}));
        // The last row went: the one above takes the selection, and the keyboard.
        QCOMPARE(view.store().conversations().at(view.store().selectedIndex()).title, QStringLiteral("Garden plans"));
        view.key(Qt::Key_Delete);
        QCOMPARE(view.listedTitles(), QStringList{"Trip to Lisbon"});
        view.key(Qt::Key_Delete);
        QCOMPARE(view.listedTitles(), QStringList{"New conversation"});
        QVERIFY(view.store().messages().isEmpty());
        QVERIFY(WindowDriver::shown(view.item("undoBar")));
        view.click(view.item("undoButton"));
        QCOMPARE(view.listedTitles(), QStringList{"Trip to Lisbon"});
    }

    void theUndoBarGoesAwayByItself()
    {
        ViewHarness view(FakeEngine::stateJson(), ViewHarness::threeConversations());
        view.store().setUndoTimeout(100);
        view.store().deleteConversation(view.store().selectedIDText());
        QVERIFY(WindowDriver::shown(view.item("undoBar")));
        QVERIFY(view.waitFor([&] { return !WindowDriver::shown(view.item("undoBar")); }));
        QCOMPARE(view.listedTitles().size(), 2);
    }

    void aConversationBeingAnsweredOffersNoDelete()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"), ViewHarness::threeConversations());
        QVERIFY(view.refresh());
        QVERIFY(view.startEndlessReply());
        rightClick(view, row(view, "Trip to Lisbon"));
        QVERIFY(!view.item("deleteItem")->isEnabled());
        view.key(Qt::Key_Escape);
        rightClick(view, row(view, "Taxes"));
        QVERIFY(view.item("deleteItem")->isEnabled());
        view.key(Qt::Key_Escape);
        view.store().stop();
        QVERIFY(idle(view));
    }

    // --- pinning -----------------------------------------------------------------------

    void pinnedRowsLeadWithAPinAndSearchStillFindsEverything()
    {
        ViewHarness view(FakeEngine::stateJson(), ViewHarness::threeConversations());
        QVERIFY(view.visibleItems("pinIcon").isEmpty());
        rightClick(view, row(view, "Taxes"));
        view.click(view.item("pinItem"));
        QCOMPARE(view.listedTitles(), (QStringList{"Taxes", "Trip to Lisbon", "Garden plans"}));
        QCOMPARE(view.visibleItems("pinIcon").size(), 1);
        rightClick(view, row(view, "Taxes"));
        QCOMPARE(WindowDriver::text(view.item("pinItem")), QStringLiteral("Unpin"));
        view.key(Qt::Key_Escape);

        view.typeInto(view.item("searchField"), QStringLiteral("a"));
        QCOMPARE(view.listedTitles(), (QStringList{"Taxes", "Trip to Lisbon", "Garden plans"}));
        view.item("searchField")->setProperty("text", QString());
        view.typeInto(view.item("searchField"), QStringLiteral("tomatoes"));
        QCOMPARE(view.listedTitles(), QStringList{"Garden plans"});
        view.item("searchField")->setProperty("text", QString());
        view.typeInto(view.item("searchField"), QStringLiteral("april"));
        QCOMPARE(view.listedTitles(), QStringList{"Taxes"});
        QCOMPARE(view.visibleItems("pinIcon").size(), 1);
        view.item("searchField")->setProperty("text", QString());
        view.settle();

        rightClick(view, row(view, "Taxes"));
        view.click(view.item("pinItem"));
        QCOMPARE(view.listedTitles(), (QStringList{"Taxes", "Trip to Lisbon", "Garden plans"}));
        QVERIFY(view.visibleItems("pinIcon").isEmpty());
    }

    // --- regenerating and editing ------------------------------------------------------

    void regenerateAsksForTheLastReplyAgain()
    {
        ViewHarness view(FakeEngine::stateJson(), ViewHarness::threeConversations());
        QList<QQuickItem *> buttons = view.visibleItems("regenerateButton");
        QCOMPARE(buttons.size(), 1);
        QVERIFY(!buttons.first()->isEnabled()); // no model
        view.setEngineState(FakeEngine::stateJson("m.gguf"));
        QVERIFY(view.refresh());
        QVERIFY(buttons.first()->isEnabled());
        answerWith(view, QStringLiteral("The pastry shop."));
        view.click(buttons.first());
        QVERIFY(idle(view));
        QCOMPARE(lastSentMessages(view), QJsonArray{sent("user", "Where should we eat?")});
        QCOMPARE(view.store().messages().last().text, QStringLiteral("The pastry shop."));
        QCOMPARE(view.store().messages().size(), 2);

        QVERIFY(view.startEndlessReply(QStringLiteral("More?")));
        buttons = view.visibleItems("regenerateButton");
        QVERIFY(buttons.isEmpty() || !buttons.first()->isEnabled());
        view.store().stop();
        QVERIFY(idle(view));
    }

    void editPutsTheQuestionInTheComposerAndSendingReplacesIt()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"), ViewHarness::threeConversations());
        QVERIFY(view.refresh());
        const QList<QQuickItem *> edits = view.visibleItems("editButton");
        QCOMPARE(edits.size(), 1);
        QVERIFY(!WindowDriver::shown(view.item("editingChip")));
        view.click(edits.first());
        QVERIFY(WindowDriver::shown(view.item("editingChip")));
        QQuickItem *prompt = view.item("promptField");
        QCOMPARE(WindowDriver::text(prompt), QStringLiteral("Where should we eat?"));
        QVERIFY(prompt->hasActiveFocus());

        // Escape leaves the edit and changes nothing.
        view.key(Qt::Key_Escape);
        QVERIFY(!WindowDriver::shown(view.item("editingChip")));
        QCOMPARE(WindowDriver::text(prompt), QString());
        QCOMPARE(view.store().messages().size(), 2);

        // Up in the empty composer: the last question again.
        view.key(Qt::Key_Up);
        QVERIFY(WindowDriver::shown(view.item("editingChip")));
        QCOMPARE(WindowDriver::text(prompt), QStringLiteral("Where should we eat?"));
        prompt->setProperty("text", QStringLiteral("Where should we eat tonight?"));
        answerWith(view, QStringLiteral("The tavern."));
        view.key(Qt::Key_Return);
        QVERIFY(idle(view));
        QVERIFY(!WindowDriver::shown(view.item("editingChip")));
        QCOMPARE(lastSentMessages(view), QJsonArray{sent("user", "Where should we eat tonight?")});
        QCOMPARE(view.store().messages().size(), 2);
        QCOMPARE(view.store().messages().last().text, QStringLiteral("The tavern."));
        QVERIFY(WindowDriver::shown(view.item("undoBar")));
        QCOMPARE(WindowDriver::text(view.item("undoText")), QStringLiteral("Message edited"));
        view.click(view.item("undoButton"));
        QCOMPARE(view.store().messages().first().text, QStringLiteral("Where should we eat?"));
        QCOMPARE(view.store().messages().last().text, QStringLiteral("Try the bakery."));
    }

    // --- the system prompt -------------------------------------------------------------

    void theLibraryKeepsTheDefaultSystemPrompt()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"), ViewHarness::threeConversations());
        QVERIFY(view.refresh());
        view.store().setShowLibrary(true);
        view.settle();
        QQuickItem *field = view.item("defaultSystemPromptField");
        QVERIFY(WindowDriver::shown(field));
        QCOMPARE(WindowDriver::text(field), QString());
        view.typeInto(field, QStringLiteral("Be brief.\nUse metric."));
        QCOMPARE(view.store().defaultSystemPrompt(), QStringLiteral("Be brief.\nUse metric."));
        QCOMPARE(QSettings().value("systemPrompt").toString(), QStringLiteral("Be brief.\nUse metric."));
        view.click(view.item("doneButton"));

        answerWith(view, QStringLiteral("Ok."));
        view.typeInto(view.item("promptField"), QStringLiteral("Hi\n"));
        QVERIFY(idle(view));
        QCOMPARE(lastSentMessages(view).first().toObject(), sent("system", "Be brief.\nUse metric."));
        // Never in the transcript.
        for (QQuickItem *block : view.visibleItems("messageBlock"))
            QVERIFY(block->property("role").toString() != QStringLiteral("system"));
    }

    void theHeaderEditsTheConversationsOwnPrompt()
    {
        QSettings().setValue("systemPrompt", "Default prompt");
        ViewHarness view(FakeEngine::stateJson("m.gguf"), ViewHarness::threeConversations());
        QVERIFY(view.refresh());
        view.click(view.item("systemPromptButton"));
        QObject *editor = view.object("systemPromptEditor");
        QVERIFY(editor && editor->property("opened").toBool());
        QQuickItem *field = view.item("systemPromptField");
        QCOMPARE(WindowDriver::text(field), QStringLiteral("Default prompt"));
        QVERIFY(!view.item("useDefaultButton")->isEnabled());
        QVERIFY(!view.item("saveSystemPromptButton")->isEnabled());
        field->setProperty("text", QStringLiteral("Only in Portuguese."));
        view.settle();
        view.click(view.item("saveSystemPromptButton"));
        QVERIFY(!editor->property("opened").toBool());
        QVERIFY(view.store().hasSystemOverride());

        answerWith(view, QStringLiteral("Sim."));
        view.typeInto(view.item("promptField"), QStringLiteral("Hi\n"));
        QVERIFY(idle(view));
        QCOMPARE(lastSentMessages(view).first().toObject(), sent("system", "Only in Portuguese."));
        QCOMPARE(*HistoryFile::load(view.home().historyFile())->first().system, QStringLiteral("Only in Portuguese."));

        view.click(view.item("systemPromptButton"));
        QVERIFY(view.item("useDefaultButton")->isEnabled());
        view.click(view.item("useDefaultButton"));
        QVERIFY(!view.store().hasSystemOverride());
        QCOMPARE(view.store().systemPrompt(), QStringLiteral("Default prompt"));
    }

    // --- keyboard shortcuts ------------------------------------------------------------

    void theWindowShortcutsAct()
    {
        ViewHarness view(FakeEngine::stateJson(), ViewHarness::threeConversations());
        auto chooser = std::make_shared<ScriptedFileChooser>();
        view.store().setFileChooser(chooser);

        view.key(Qt::Key_C, Qt::ControlModifier | Qt::ShiftModifier);
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("Try the bakery."));

        view.key(Qt::Key_E, Qt::ControlModifier);
        QCOMPARE(chooser->proposedSaveNames, QStringList{"Vorn conversation.txt"});

        view.key(Qt::Key_F, Qt::ControlModifier);
        QVERIFY(view.item("searchField")->hasActiveFocus());

        view.key(Qt::Key_N, Qt::ControlModifier);
        QCOMPARE(view.listedTitles().first(), QStringLiteral("New conversation"));
        QCOMPARE(view.store().conversations().size(), 4);
        QVERIFY(view.item("promptField")->hasActiveFocus());

        view.key(Qt::Key_L, Qt::ControlModifier);
        QVERIFY(view.store().showLibrary());
    }

    void theApplicationMenuListsTheShortcuts()
    {
        ViewHarness view;
        QObject *item = view.window()->findChild<QObject *>("shortcutsItem");
        QVERIFY(item);
        QCOMPARE(item->property("text").toString(), QStringLiteral("Keyboard shortcuts"));
        QVERIFY(QMetaObject::invokeMethod(item, "triggered"));
        view.settle();
        QObject *sheet = view.object("shortcutsSheet");
        QVERIFY(sheet && sheet->property("opened").toBool());
        QStringList actions;
        for (QQuickItem *label : view.visibleItems("shortcutAction"))
            actions.append(WindowDriver::text(label));
        for (const char *action : {"New conversation", "Search conversations", "Model library", "Export conversation",
                                   "Copy the last reply"})
            QVERIFY2(actions.contains(QLatin1String(action)), action);
        QStringList keys;
        for (QQuickItem *label : view.visibleItems("shortcutKeys"))
            keys.append(WindowDriver::text(label));
        QVERIFY(keys.contains(QStringLiteral("Ctrl+N")) || keys.contains(QStringLiteral("\u2318N")));
        view.click(view.item("shortcutsDoneButton"));
        QVERIFY(!sheet->property("opened").toBool());
    }

    // --- screenshots -------------------------------------------------------------------

    void screenshots()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"), ViewHarness::threeConversations());
        QVERIFY(view.refresh());
        view.store().setPinned(uuidText(view.store().conversations().at(2).id), true);
        for (const QString &appearance : {QStringLiteral("light"), QStringLiteral("dark")}) {
            view.click(view.item(appearance == QLatin1String("dark") ? "appearanceDark" : "appearanceLight"));

            rightClick(view, row(view, "Garden plans"));
            QVERIFY(menuShown(view));
            view.saveScreenshot(QStringLiteral("conversation-menu-") + appearance);
            view.key(Qt::Key_Escape);

            QTest::mouseDClick(view.window(), Qt::LeftButton, Qt::NoModifier, centre(row(view, "Trip to Lisbon")));
            view.settle();
            view.saveScreenshot(QStringLiteral("rename-") + appearance);
            view.key(Qt::Key_Escape);

            view.store().deleteConversation(uuidText(view.store().conversations().at(2).id));
            view.settle();
            QVERIFY(WindowDriver::shown(view.item("undoBar")));
            view.saveScreenshot(QStringLiteral("undo-bar-") + appearance);
            view.click(view.item("undoButton"));

            view.store().setSystemOverride(QStringLiteral("Answer in short sentences.\nUse metric units."));
            view.click(view.item("systemPromptButton"));
            view.saveScreenshot(QStringLiteral("system-prompt-") + appearance);
            view.key(Qt::Key_Escape);
            view.store().clearSystemOverride();

            view.store().beginEdit(uuidText(view.store().messages().first().id));
            view.settle();
            QVERIFY(WindowDriver::shown(view.item("editingChip")));
            view.saveScreenshot(QStringLiteral("editing-") + appearance);
            view.store().cancelEdit();

            QVERIFY(QMetaObject::invokeMethod(view.window()->findChild<QObject *>("shortcutsItem"), "triggered"));
            view.saveScreenshot(QStringLiteral("shortcuts-") + appearance);
            view.click(view.item("shortcutsDoneButton"));
        }
    }
};

int main(int argc, char *argv[])
{
    ViewHarness::prepareProcess();
    QApplication application(argc, argv);
    ConversationActionsTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "ConversationActionsTest.moc"
