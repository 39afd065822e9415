// What a screen reader and a keyboard user get from the window: every control's name
// and role read through Qt's accessibility interfaces, the order Tab takes through
// sidebar, header, transcript and composer, and the library sheet worked by keys alone.
#include "ViewHarness.h"

#include <QAccessible>
#include <QApplication>
#include <QClipboard>
#include <QtTest>

namespace {

QAccessibleInterface *accessible(QObject *object)
{
    return object ? QAccessible::queryAccessibleInterface(object) : nullptr;
}

QString accessibleName(QObject *object)
{
    QAccessibleInterface *interface = accessible(object);
    return interface ? interface->text(QAccessible::Name) : QStringLiteral("<no accessible interface>");
}

// What the window's accessible interface reports as focused: its name, or a marker.
QString focusedName(QQuickWindow *window)
{
    QAccessibleInterface *root = accessible(window);
    QAccessibleInterface *focused = root ? root->focusChild() : nullptr;
    if (!focused)
        return QStringLiteral("<nothing focused>");
    const QString name = focused->text(QAccessible::Name);
    return name.isEmpty() ? QStringLiteral("<unnamed %1>").arg(focused->object()->objectName()) : name;
}

// What a screen reader's arrival does: every control publishes its role and name.
// The offscreen platform has no accessibility bridge to report one, so the test
// announces it after the items it reads exist.
void screenReaderReads(WindowDriver &view)
{
    QAccessible::setActive(true);
    view.settle();
}

QByteArray libraryModels()
{
    return "[" + ViewHarness::modelJson("alpha.gguf", 4'200'000'000) + ","
        + ViewHarness::modelJson("beta.gguf", 1'500'000) + ","
        + ViewHarness::modelJson("beta-mmproj.gguf", 600'000, true) + "]";
}

} // namespace

class AccessibilityTest : public QObject {
    Q_OBJECT

private:
    // Presses Tab (or Shift+Tab) until the focus is back where it started; the names
    // of the stops on the way, the starting one last.
    static QStringList tabStops(ViewHarness &view, bool backwards = false, int limit = 60)
    {
        QQuickItem *start = view.window()->activeFocusItem();
        QStringList stops;
        for (int step = 0; step < limit; ++step) {
            view.key(backwards ? Qt::Key_Backtab : Qt::Key_Tab, backwards ? Qt::ShiftModifier : Qt::NoModifier);
            stops.append(focusedName(view.window()));
            if (view.window()->activeFocusItem() == start)
                break;
        }
        return stops;
    }

    static QStringList reversed(QStringList list)
    {
        std::reverse(list.begin(), list.end());
        return list;
    }

    // Shift+Tab twice from the composer: the transcript, at the newest message, a reply.
    static void focusTheReplyFromTheComposer(ViewHarness &view)
    {
        QVERIFY(view.refresh());
        screenReaderReads(view);
        view.item("promptField")->forceActiveFocus();
        view.key(Qt::Key_Backtab, Qt::ShiftModifier);
        view.key(Qt::Key_Backtab, Qt::ShiftModifier);
        QCOMPARE(focusedName(view.window()), QStringLiteral("Vorn"));
    }

private slots:
    void init() { ViewHarness::resetSettings(); }

    void iconButtonsAreNamedWithTheWordsOfTheirHelp()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"),
                         {ViewHarness::conversation("Greeting", {"Hello", "Hi there."})});
        QVERIFY(view.refresh());
        screenReaderReads(view);

        const QList<QPair<QString, QString>> named{
            {"exportButton", "Export conversation"},
            {"headerLibraryButton", "Models and generation settings"},
            {"attachButton", "Attach an image"},
            {"copyButton", "Copy response"},
        };
        for (const auto &[objectName, words] : named) {
            QQuickItem *button = view.item(objectName);
            QVERIFY2(button, qPrintable(objectName));
            QCOMPARE(accessibleName(button), words);
            // The tooltip shows the same words.
            QCOMPARE(button->property("help").toString(), words);
            QCOMPARE(accessible(button)->role(), QAccessible::Button);
        }

        QQuickItem *send = view.item("sendButton");
        QCOMPARE(accessibleName(send), QStringLiteral("Send"));
        QCOMPARE(accessible(send)->role(), QAccessible::Button);
        QVERIFY(accessible(send)->text(QAccessible::Description).startsWith(QStringLiteral("Send")));
        QVERIFY(view.startEndlessReply());
        QCOMPARE(accessibleName(send), QStringLiteral("Stop"));
        QCOMPARE(accessible(send)->text(QAccessible::Description), QStringLiteral("Stop"));
        view.store().stop();
        QVERIFY(view.waitFor([&] { return !view.store().generating(); }));
        QCOMPARE(accessibleName(send), QStringLiteral("Send"));
    }

    void theAttachmentsRemoveButtonIsNamed()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf", true));
        QVERIFY(view.refresh());
        screenReaderReads(view);
        // The chip shows for any attachment; the picture itself is not drawn there.
        view.store().setAttachment(QStringLiteral("data:image/png;base64,iVBORw0KGgo="));
        screenReaderReads(view);
        QQuickItem *remove = view.item("removeAttachmentButton");
        QVERIFY(WindowDriver::shown(remove));
        QCOMPARE(accessibleName(remove), QStringLiteral("Remove attached image"));
        QCOMPARE(accessible(remove)->role(), QAccessible::Button);
        // Reached and pressed from the keyboard, it removes the picture.
        remove->forceActiveFocus(Qt::TabFocusReason);
        view.key(Qt::Key_Space);
        QVERIFY(view.waitFor([&] { return !view.store().hasAttachment(); }));
    }

    void messagesSayWhoIsSpeakingAndWhat()
    {
        ViewHarness view(FakeEngine::stateJson(),
                         {ViewHarness::conversation("Greeting", {"Hello there", "Hi, **how** can I help?"})});
        QVERIFY(view.refresh());
        screenReaderReads(view);

        // The transcript is a list, and each message one of its items.
        QQuickItem *list = view.item("messageView");
        QVERIFY(list);
        QCOMPARE(accessible(list)->role(), QAccessible::List);
        QCOMPARE(accessibleName(list), QStringLiteral("Messages"));

        const QList<QQuickItem *> blocks = view.visibleItems("messageBlock");
        QCOMPARE(blocks.size(), 2);
        const QStringList speakers{"You", "Vorn"};
        // A reply is read as written, Markdown included.
        const QStringList words{"Hello there", "Hi, **how** can I help?"};
        for (int index = 0; index < 2; ++index) {
            QAccessibleInterface *block = accessible(blocks.at(index));
            QVERIFY(block);
            QCOMPARE(block->role(), QAccessible::ListItem);
            QCOMPARE(block->text(QAccessible::Name), speakers.at(index));
            QCOMPARE(block->text(QAccessible::Description), words.at(index));
            QVERIFY(block->state().focusable);
        }
        // The items belong to the list, for a screen reader walking it.
        for (QQuickItem *block : blocks) {
            bool found = false;
            for (QAccessibleInterface *parent = accessible(block)->parent(); parent && !found;
                 parent = parent->parent())
                found = parent->object() == list;
            QVERIFY(found);
        }
    }

    void aReplyIsReadOnceWrittenAndWithoutItsReasoning()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"));
        QVERIFY(view.refresh());
        screenReaderReads(view);
        FakeResponse reply = FakeResponse::stream({ViewHarness::delta(QStringLiteral("<think>\nShort.\n</think>\n\n")),
                                                   ViewHarness::delta(QStringLiteral("Hello, **friend**."))});
        // The reply is still being written until the test stops it.
        reply.parts.append({60000, "data: [DONE]\n\n"});
        view.fake().route("POST", "/v1/chat/completions", reply);
        view.store().setPrompt(QStringLiteral("Say hello"));
        view.store().send();

        const auto replyBlock = [&]() -> QAccessibleInterface * {
            const QList<QQuickItem *> blocks = view.visibleItems("messageBlock");
            return blocks.size() == 2 ? accessible(blocks.last()) : nullptr;
        };
        QVERIFY(
            view.waitFor([&] { return view.store().messages().last().text.endsWith(QStringLiteral("friend**.")); }));
        QVERIFY(view.store().generating());
        QVERIFY(replyBlock());
        QCOMPARE(replyBlock()->text(QAccessible::Name), QStringLiteral("Vorn"));
        QCOMPARE(replyBlock()->text(QAccessible::Description), QString());

        view.store().stop();
        QVERIFY(view.waitFor([&] { return !view.store().generating(); }));
        QCOMPARE(replyBlock()->text(QAccessible::Description), QStringLiteral("Hello, **friend**."));
        QCOMPARE(accessible(view.visibleItems("messageBlock").first())->text(QAccessible::Description),
                 QStringLiteral("Say hello"));
    }

    void sidebarControlsAreNamed()
    {
        ViewHarness view(FakeEngine::stateJson(),
                         {ViewHarness::conversation("Trip to Lisbon", {"Eat?", "Yes."}),
                          ViewHarness::conversation("Taxes", {"When?", "April."})});
        QVERIFY(view.refresh());
        screenReaderReads(view);
        QCOMPARE(accessibleName(view.item("newConversationButton")), QStringLiteral("New conversation"));
        QCOMPARE(accessibleName(view.item("searchField")), QStringLiteral("Search conversations"));
        QCOMPARE(accessibleName(view.item("sidebarLibraryButton")), QStringLiteral("Model library"));

        const QList<QQuickItem *> rows = view.visibleItems("conversationRow");
        QCOMPARE(rows.size(), 2);
        QCOMPARE(accessibleName(rows.at(0)), QStringLiteral("Trip to Lisbon"));
        QCOMPARE(accessibleName(rows.at(1)), QStringLiteral("Taxes"));
        QVERIFY(accessible(rows.at(0))->state().selected);
        QVERIFY(!accessible(rows.at(1))->state().selected);

        QAccessibleInterface *light = accessible(view.item("appearanceLight"));
        QAccessibleInterface *dark = accessible(view.item("appearanceDark"));
        QCOMPARE(light->text(QAccessible::Name), QStringLiteral("Light"));
        QCOMPARE(dark->text(QAccessible::Name), QStringLiteral("Dark"));
        QCOMPARE(light->role(), QAccessible::Button);
        QVERIFY(light->state().checked);
        view.click(view.item("appearanceDark"));
        QVERIFY(dark->state().checked);
        QVERIFY(!light->state().checked);
    }

    void tabGoesThroughSidebarHeaderTranscriptAndComposer()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"),
                         {ViewHarness::conversation("Greeting", {"Hello", "Hi there."})});
        QVERIFY(view.refresh());
        screenReaderReads(view);
        view.item("promptField")->forceActiveFocus();

        const QStringList forward{// sidebar
                                  "New conversation", "Search conversations", "Greeting", "Model library", "Light",
                                  "Dark",
                                  // header
                                  "System prompt", "Export conversation", "Models and generation settings",
                                  // transcript: one stop at its newest message, then that
                                  // message's own buttons
                                  "Vorn", "Regenerate", "Copy response",
                                  // composer (Send is skipped while there is nothing to send)
                                  "Attach an image", "Ask Vorn"};
        const QStringList forwardStops = tabStops(view);
        QVERIFY2(forwardStops == forward, qPrintable(forwardStops.join(", ")));

        // Shift+Tab comes into the transcript at the same message; the buttons of a
        // message follow it, so going backwards they are not on the way.
        const QStringList backward{"Attach an image",
                                   "Vorn",
                                   "Models and generation settings",
                                   "Export conversation",
                                   "System prompt",
                                   "Dark",
                                   "Light",
                                   "Model library",
                                   "Greeting",
                                   "Search conversations",
                                   "New conversation",
                                   "Ask Vorn"};
        const QStringList backwardStops = tabStops(view, true);
        QVERIFY2(backwardStops == backward, qPrintable(backwardStops.join(", ")));

        // The controls show where the keyboard is.
        view.item("exportButton")->forceActiveFocus(Qt::TabFocusReason);
        QVERIFY(view.item("exportButton")->property("visualFocus").toBool());
        view.saveScreenshot(QStringLiteral("keyboard-focus-light"));
        view.item("newConversationButton")->forceActiveFocus(Qt::TabFocusReason);
        view.click(view.item("appearanceDark"));
        view.item("newConversationButton")->forceActiveFocus(Qt::TabFocusReason);
        view.saveScreenshot(QStringLiteral("keyboard-focus-dark"));
        view.click(view.item("appearanceLight"));
        view.item("promptField")->forceActiveFocus();

        // With a prompt to send, Send is a stop after the field, and Space sends.
        view.typeInto(view.item("promptField"), QStringLiteral("More"));
        view.fake().route("POST", "/v1/chat/completions", FakeResponse::silent());
        view.key(Qt::Key_Tab);
        QCOMPARE(focusedName(view.window()), QStringLiteral("Send"));
        view.key(Qt::Key_Space);
        QVERIFY(view.waitFor([&] { return view.store().generating(); }));
        QCOMPARE(focusedName(view.window()), QStringLiteral("Stop"));
        view.key(Qt::Key_Space);
        QVERIFY(view.waitFor([&] { return !view.store().generating(); }));
    }

    void arrowsMoveMessageByMessageAndScrollIntoView()
    {
        QStringList texts;
        for (int index = 0; index < 40; ++index)
            texts.append(QStringLiteral("Message %1\nwith a second line\nand a third").arg(index));
        ViewHarness view(FakeEngine::stateJson(), {ViewHarness::conversation("Long", texts)});
        QVERIFY(view.refresh());
        screenReaderReads(view);
        auto *messages = view.item("messageView");
        QVERIFY(messages);
        // Only the blocks near the view are made.
        QVERIFY(view.items("messageBlock").size() < 40);

        const auto current = [&] { return messages->property("currentIndex").toInt(); };
        const auto focusedBlock = [&]() -> QQuickItem * {
            QQuickItem *item = view.window()->activeFocusItem();
            return item && item->objectName() == QStringLiteral("messageBlock") ? item : nullptr;
        };
        // The message that has the keyboard shows whole (or fills the view) with its ring.
        const auto showsFocused = [&] {
            QQuickItem *block = focusedBlock();
            if (!block)
                return false;
            const QRectF area = block->mapRectToItem(messages, QRectF(0, 0, block->width(), block->height()));
            const bool inView = area.height() > messages->height()
                ? area.top() <= 1 && area.bottom() >= messages->height() - 1
                : area.top() >= -1 && area.bottom() <= messages->height() + 1;
            QQuickItem *ring = nullptr;
            for (QQuickItem *child : block->childItems()) {
                if (child->objectName() == QStringLiteral("messageFocusRing"))
                    ring = child;
            }
            return inView && ring && ring->isVisible();
        };
        // What a screen reader hears for the focused message.
        const auto heard = [&] {
            QAccessibleInterface *focused = accessible(view.window())->focusChild();
            return focused ? focused->text(QAccessible::Name) + QLatin1Char(' ')
                    + focused->text(QAccessible::Description).section(QLatin1Char('\n'), 0, 0)
                           : QStringLiteral("<nothing focused>");
        };

        // Shift+Tab from the prompt reaches the newest message, wherever the view stood.
        messages->setProperty("contentY", messages->property("originY"));
        view.settle();
        view.item("promptField")->forceActiveFocus();
        view.key(Qt::Key_Backtab, Qt::ShiftModifier);
        view.key(Qt::Key_Backtab, Qt::ShiftModifier);
        QCOMPARE(current(), 39);
        QVERIFY(showsFocused());
        QCOMPARE(heard(), QStringLiteral("Vorn Message 39"));
        QVERIFY(accessible(view.window())->focusChild()->state().focused);

        // Up and Down go message by message.
        view.key(Qt::Key_Up);
        QCOMPARE(current(), 38);
        QVERIFY(showsFocused());
        QCOMPARE(heard(), QStringLiteral("You Message 38"));
        view.key(Qt::Key_Down);
        view.key(Qt::Key_Down);
        QCOMPARE(current(), 39);

        // Home goes to the first message, far out of view and not made until then.
        view.key(Qt::Key_Home);
        QCOMPARE(current(), 0);
        QVERIFY(showsFocused());
        QCOMPARE(heard(), QStringLiteral("You Message 0"));
        view.key(Qt::Key_Up);
        QCOMPARE(current(), 0);

        // Page Down passes what shows; Page Up comes back.
        view.key(Qt::Key_PageDown);
        const int paged = current();
        QVERIFY2(paged > 1 && paged < 39, qPrintable(QString::number(paged)));
        QVERIFY(showsFocused());
        view.key(Qt::Key_PageUp);
        QVERIFY(current() < paged);
        QVERIFY(showsFocused());

        view.key(Qt::Key_End);
        QCOMPARE(current(), 39);
        QVERIFY(showsFocused());
        QCOMPARE(heard(), QStringLiteral("Vorn Message 39"));

        // Tab on from the header comes in at the newest message again, one stop.
        view.key(Qt::Key_Home);
        view.item("headerLibraryButton")->forceActiveFocus(Qt::TabFocusReason);
        view.key(Qt::Key_Tab);
        QCOMPARE(current(), 39);
        QVERIFY(showsFocused());
        view.saveScreenshot(QStringLiteral("transcript-keyboard-light"));
        view.click(view.item("appearanceDark"));
        view.item("headerLibraryButton")->forceActiveFocus(Qt::TabFocusReason);
        view.key(Qt::Key_Tab);
        QVERIFY(showsFocused());
        view.saveScreenshot(QStringLiteral("transcript-keyboard-dark"));
        view.click(view.item("appearanceLight"));
    }

    void buttonsInAMessageAreUsedByKeyboard()
    {
        const QString reply = QStringLiteral("Like this:\n\n```sh\nls -l\n```\n");
        ViewHarness view(FakeEngine::stateJson("m.gguf"),
                         {ViewHarness::conversation("Files", {"How do I list files?", reply})});
        focusTheReplyFromTheComposer(view);

        // Tab goes into the reply's buttons, code last, then on to the composer.
        const QStringList inside{"Regenerate", "Copy response", "Copy code", "Attach an image"};
        QStringList stops;
        for (int step = 0; step < inside.size(); ++step) {
            view.key(Qt::Key_Tab);
            stops.append(focusedName(view.window()));
        }
        QCOMPARE(stops, inside);

        // Coming back from the composer, the list is one stop again, then its buttons
        // follow it; Space presses the one that has the keyboard.
        view.key(Qt::Key_Backtab, Qt::ShiftModifier);
        QCOMPARE(focusedName(view.window()), QStringLiteral("Vorn"));
        view.key(Qt::Key_Tab);
        view.key(Qt::Key_Tab);
        view.key(Qt::Key_Tab);
        QGuiApplication::clipboard()->setText(QStringLiteral("old"));
        QCOMPARE(focusedName(view.window()), QStringLiteral("Copy code"));
        QVERIFY(view.item("copyCodeButton")->property("visualFocus").toBool());
        view.key(Qt::Key_Space);
        QVERIFY(view.waitFor([] { return QGuiApplication::clipboard()->text() == QStringLiteral("ls -l"); }));
        view.key(Qt::Key_Backtab, Qt::ShiftModifier);
        QCOMPARE(focusedName(view.window()), QStringLiteral("Copy response"));
        view.key(Qt::Key_Space);
        QVERIFY(view.waitFor([&] { return QGuiApplication::clipboard()->text() == reply; }));

        // Up from a button moves to the question; its Edit button is then the one Tab
        // reaches, and Space puts the question back into the composer.
        view.key(Qt::Key_Up);
        QCOMPARE(focusedName(view.window()), QStringLiteral("You"));
        view.key(Qt::Key_Tab);
        QCOMPARE(focusedName(view.window()), QStringLiteral("Edit"));
        view.key(Qt::Key_Space);
        QVERIFY(view.waitFor([&] { return view.store().editing(); }));
    }

    void theReasoningIsFoldedAndUnfoldedByKeys()
    {
        const QString reply = QStringLiteral("<think>\nList the folder, long form.\n</think>\n\nUse `ls -l`.");
        ViewHarness view(FakeEngine::stateJson("m.gguf"),
                         {ViewHarness::conversation("Files", {"How do I list files?", reply})});
        focusTheReplyFromTheComposer(view);

        // The toggle is a stop of the reply's, named by what it says.
        QStringList stops;
        for (int step = 0; step < 3; ++step) {
            view.key(Qt::Key_Tab);
            stops.append(focusedName(view.window()));
        }
        QCOMPARE(stops, (QStringList{"Regenerate", "Copy response", "Thought"}));
        QQuickItem *toggle = view.item("reasoningToggle");
        QVERIFY(toggle->property("visualFocus").toBool());
        QVERIFY(!ViewHarness::shown(view.item("reasoningText")));

        // Space unfolds the reasoning and folds it again; the focus stays on the toggle.
        view.key(Qt::Key_Space);
        QVERIFY(view.waitFor([&] { return ViewHarness::shown(view.item("reasoningText")); }));
        QCOMPARE(ViewHarness::text(view.item("reasoningText")), QStringLiteral("List the folder, long form."));
        QCOMPARE(view.window()->activeFocusItem(), toggle);
        view.key(Qt::Key_Space);
        QVERIFY(view.waitFor([&] { return !ViewHarness::shown(view.item("reasoningText")); }));
        QCOMPARE(view.window()->activeFocusItem(), toggle);

        // Then on past the reply to the composer.
        view.key(Qt::Key_Tab);
        QCOMPARE(focusedName(view.window()), QStringLiteral("Attach an image"));
    }

    void theLibrarySheetIsWorkedByKeys()
    {
        ViewHarness view(FakeEngine::stateJson({}, false, libraryModels()));
        QVERIFY(view.refresh());
        screenReaderReads(view);
        view.fake().route("POST", "/api/load", FakeResponse::json(200, "{}"));

        // From the header's library button, by keyboard.
        view.item("headerLibraryButton")->forceActiveFocus(Qt::TabFocusReason);
        view.key(Qt::Key_Space);
        QVERIFY(view.waitFor([&] { return view.store().showLibrary(); }));
        screenReaderReads(view);
        QQuickItem *sheet = qobject_cast<QQuickItem *>(
            view.object("librarySheet")->property("contentItem").value<QObject *>());
        QVERIFY(sheet);

        // Tab stays inside the open sheet, and every stop has a name.
        QStringList stops;
        for (int step = 0; step < 12; ++step) {
            view.key(Qt::Key_Tab);
            QQuickItem *focused = view.window()->activeFocusItem();
            QVERIFY2(focused && sheet->isAncestorOf(focused), qPrintable(focusedName(view.window())));
            stops.append(focusedName(view.window()));
        }
        const QStringList sheetStops{"Done",           "Add GGUF files", QString(),     "Load alpha.gguf",
                                     "Load beta.gguf", "Download link",  "Temperature", "Reply limit"};
        for (const QString &name : sheetStops) {
            if (!name.isEmpty())
                QVERIFY2(stops.contains(name), qPrintable(stops.join(", ")));
        }
        for (const QString &stop : stops)
            QVERIFY2(!stop.startsWith(QLatin1Char('<')), qPrintable(stops.join(", ")));

        // Load from the keyboard: the button is named after its model, then its action.
        QQuickItem *load = nullptr;
        for (QQuickItem *button : view.visibleItems("modelActionButton")) {
            if (accessibleName(button) == QStringLiteral("Load alpha.gguf"))
                load = button;
        }
        QVERIFY(load);
        load->forceActiveFocus(Qt::TabFocusReason);
        view.key(Qt::Key_Space);
        QVERIFY(view.waitFor([&] { return view.fake().countOf("/api/load") == 1; }));
        view.setEngineState(FakeEngine::stateJson("alpha.gguf", false, libraryModels()));
        QVERIFY(view.refresh());
        screenReaderReads(view);
        QVERIFY(view.waitFor([&] { return accessibleName(load) == QStringLiteral("Unload alpha.gguf"); }));

        // Plain Escape leaves the sheet open; Ctrl+Escape closes it.
        view.key(Qt::Key_Escape);
        QVERIFY(view.store().showLibrary());
        view.key(Qt::Key_Escape, Qt::ControlModifier);
        QVERIFY(view.waitFor([&] { return !view.store().showLibrary(); }));
    }
};

int main(int argc, char *argv[])
{
    ViewHarness::prepareProcess();
    QApplication application(argc, argv);
    AccessibilityTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "AccessibilityTest.moc"
