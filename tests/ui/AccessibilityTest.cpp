// What a screen reader and a keyboard user get from the window: every control's name
// and role read through Qt's accessibility interfaces, the order Tab takes through
// sidebar, header, transcript and composer, and the library sheet worked by keys alone.
#include "ViewHarness.h"

#include <QAccessible>
#include <QApplication>
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
                         {ViewHarness::conversation("Greeting", {"Hello there", "Hi, how can I help?"})});
        QVERIFY(view.refresh());
        screenReaderReads(view);
        const QList<QQuickItem *> texts = view.visibleItems("messageText");
        QCOMPARE(texts.size(), 2);
        QCOMPARE(accessibleName(texts.at(0)), QStringLiteral("You"));
        QCOMPARE(accessibleName(texts.at(1)), QStringLiteral("Vorn"));
        for (int index = 0; index < 2; ++index) {
            QAccessibleTextInterface *text = accessible(texts.at(index))->textInterface();
            QVERIFY(text);
            QCOMPARE(text->text(0, text->characterCount()),
                     index == 0 ? QStringLiteral("Hello there") : QStringLiteral("Hi, how can I help?"));
            QVERIFY(accessible(texts.at(index))->state().readOnly);
        }
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
                                  // transcript: each message's buttons, then its text
                                  "Edit", "You", "Regenerate", "Copy response", "Vorn",
                                  // composer (Send is skipped while there is nothing to send)
                                  "Attach an image", "Ask Vorn"};
        QCOMPARE(tabStops(view), forward);

        // Shift+Tab walks the same stops the other way.
        QStringList backward = reversed(forward);
        backward.removeFirst();
        backward.append(QStringLiteral("Ask Vorn"));
        QCOMPARE(tabStops(view, true), backward);

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

    void aMessageReachedByTabScrollsIntoView()
    {
        QStringList texts;
        for (int index = 0; index < 24; ++index)
            texts.append(QStringLiteral("Message %1\nwith a second line\nand a third").arg(index));
        ViewHarness view(FakeEngine::stateJson(), {ViewHarness::conversation("Long", texts)});
        QVERIFY(view.refresh());
        auto *messages = qobject_cast<QQuickItem *>(view.object("messageView"));
        QVERIFY(messages);
        const auto showsAny = [&](QQuickItem *item) {
            const QRectF area = item->mapRectToItem(messages, QRectF(0, 0, item->width(), item->height()));
            return area.bottom() > 0 && area.top() < messages->height();
        };
        const QList<QQuickItem *> bodies = view.items("messageText");
        QCOMPARE(bodies.size(), 24);

        // Shift+Tab from the prompt reaches the last message, wherever the view stood.
        messages->setProperty("contentY", 0);
        view.settle();
        QVERIFY(!showsAny(bodies.last()));
        view.item("promptField")->forceActiveFocus();
        view.key(Qt::Key_Backtab, Qt::ShiftModifier);
        view.key(Qt::Key_Backtab, Qt::ShiftModifier);
        QCOMPARE(view.window()->activeFocusItem(), bodies.last());
        QVERIFY(showsAny(bodies.last()));

        // Tab on from the sidebar's last control reaches the first one.
        view.item("appearanceDark")->forceActiveFocus(Qt::TabFocusReason);
        view.key(Qt::Key_Tab); // system prompt
        view.key(Qt::Key_Tab); // export
        view.key(Qt::Key_Tab); // library
        view.key(Qt::Key_Tab); // the first question's Edit
        view.key(Qt::Key_Tab);
        QCOMPARE(view.window()->activeFocusItem(), bodies.first());
        QVERIFY(showsAny(bodies.first()));
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
