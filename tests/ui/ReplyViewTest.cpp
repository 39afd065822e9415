// Replies in the transcript: Markdown, code blocks, links, reasoning, and a long
// conversation that makes only the blocks in view.
#include "DragAutoScroll.h"
#include "ViewHarness.h"

#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QQuickTextDocument>
#include <QSignalSpy>
#include <QTextDocument>
#include <QtTest>
#include <memory>

namespace {

const QString markdownReply = QStringLiteral("## Bread in three steps\n\n"
                                             "You need **flour**, *water* and `salt`.\n\n"
                                             "1. Mix everything.\n"
                                             "2. Let it rise overnight.\n"
                                             "3. Bake at 230 \u00b0C.\n\n"
                                             "| Flour | Water | Salt |\n"
                                             "|-------|------:|-----:|\n"
                                             "| 500 g | 350 g | 10 g |\n\n"
                                             "```python\n"
                                             "def hydration(flour, water):\n"
                                             "    return water / flour * 100\n"
                                             "```\n\n"
                                             "> A wetter dough gives a more open crumb.");

const QString reasonedReply = QStringLiteral(
    "<think>\nThe user asks about hydration. 350 g of water on 500 g of flour is 70 %.\n</think>\n\n"
    "The dough is **70 %** hydration.");

// Receives the addresses the app hands to the system's browser.
class LinkCatcher : public QObject {
    Q_OBJECT
public:
    QList<QUrl> opened;
public slots:
    void open(const QUrl &url) { opened.append(url); }
};

} // namespace

class ReplyViewTest : public QObject {
    Q_OBJECT

private:
    static QString documentText(QQuickItem *edit)
    {
        auto *document = edit->property("textDocument").value<QQuickTextDocument *>();
        return document ? document->textDocument()->toPlainText() : QString();
    }

    static QList<QByteArray> reply(const QList<QByteArray> &events)
    {
        QList<QByteArray> lines = events;
        lines.append("data: [DONE]\n\n");
        return lines;
    }

    // Clicks a text item at the character at position.
    static void clickCharacter(ViewHarness &view, QQuickItem *edit, int position)
    {
        QRectF rectangle;
        QMetaObject::invokeMethod(edit, "positionToRectangle", Q_RETURN_ARG(QRectF, rectangle), Q_ARG(int, position));
        const QPointF point = edit->mapToScene(rectangle.center() + QPointF(2, 0));
        QTest::mouseClick(view.window(), Qt::LeftButton, Qt::NoModifier, point.toPoint());
        view.settle();
    }

    static QPoint characterPoint(QQuickItem *edit, int position)
    {
        QRectF rectangle;
        QMetaObject::invokeMethod(edit, "positionToRectangle", Q_RETURN_ARG(QRectF, rectangle), Q_ARG(int, position));
        return edit->mapToScene(rectangle.center()).toPoint();
    }

    // Presses the mouse at one point and drags it, a few steps at a time, to another.
    static void drag(ViewHarness &view, QPoint from, QPoint to)
    {
        QTest::mousePress(view.window(), Qt::LeftButton, Qt::NoModifier, from);
        for (int step = 1; step <= 6; ++step)
            QTest::mouseMove(view.window(), from + (to - from) * step / 6);
        QTest::mouseRelease(view.window(), Qt::LeftButton, Qt::NoModifier, to);
        view.settle();
    }

    // Whether the last reply's selection covers more than one of its text items.
    static bool spansSeveral(ViewHarness &view)
    {
        QObject *selection = view.visibleItems("messageText").last()->findChild<QObject *>("replySelection");
        return selection && selection->property("spansSeveral").toBool();
    }

    // A reply many times taller than the window.
    static QString longReply()
    {
        QString text;
        for (int paragraph = 0; paragraph < 80; ++paragraph)
            text += QStringLiteral("Paragraph %1 of a long answer.\n\n").arg(paragraph);
        return text;
    }

    static QString selected(QQuickItem *edit) { return edit->property("selectedText").toString(); }

private slots:
    void init() { ViewHarness::resetSettings(); }

    void aReplyShowsItsMarkdownAndTheUsersTextStaysAsTyped()
    {
        ViewHarness view(FakeEngine::stateJson(),
                         {ViewHarness::conversation("Bread", {"**how** to bake?", markdownReply})});
        const QList<QQuickItem *> prose = view.visibleItems("replyProse");
        QCOMPARE(prose.size(), 2);
        QCOMPARE(documentText(prose.at(0)),
                 QStringLiteral("Bread in three steps\nYou need flour, water and salt.\n1. Mix everything.\n"
                                "2. Let it rise overnight.\n3. Bake at 230 \u00b0C.\nFlour\nWater\nSalt\n500 g\n350 g\n"
                                "10 g\n"));
        QCOMPARE(documentText(prose.at(1)), QStringLiteral("A wetter dough gives a more open crumb."));
        const QList<QQuickItem *> texts = view.visibleItems("messageText");
        QCOMPARE(texts.size(), 2);
        QCOMPARE(ViewHarness::text(texts.at(0)), QStringLiteral("**how** to bake?"));
        QCOMPARE(ViewHarness::text(texts.at(1)), markdownReply);

        QCOMPARE(view.visibleItems("codeBlock").size(), 1);
        QCOMPARE(ViewHarness::text(view.item("codeLanguage")), QStringLiteral("python"));
        QCOMPARE(ViewHarness::text(view.item("codeText")),
                 QStringLiteral("def hydration(flour, water):\n    return water / flour * 100"));
    }

    void copyCodeCopiesTheBlockAndCopyResponseTheRawText()
    {
        ViewHarness view(FakeEngine::stateJson(), {ViewHarness::conversation("Bread", {"how?", markdownReply})});
        QCOMPARE(view.item("copyCodeButton")->property("help").toString(), QStringLiteral("Copy code"));
        QGuiApplication::clipboard()->setText(QStringLiteral("old"));
        view.click(view.item("copyCodeButton"));
        QCOMPARE(QGuiApplication::clipboard()->text(),
                 QStringLiteral("def hydration(flour, water):\n    return water / flour * 100"));
        view.click(view.visibleItems("copyButton").first());
        QCOMPARE(QGuiApplication::clipboard()->text(), markdownReply);
    }

    void oneDragSelectsAcrossProseAndCodeBlocks()
    {
        ViewHarness view(FakeEngine::stateJson(), {ViewHarness::conversation("Bread", {"how?", markdownReply})});
        const QList<QQuickItem *> prose = view.visibleItems("replyProse");
        QQuickItem *code = view.item("codeText");
        QCOMPARE(prose.size(), 2);
        const QString firstText = documentText(prose.at(0));
        const int salt = static_cast<int>(firstText.indexOf(QStringLiteral("salt")));
        const int water = static_cast<int>(
            QStringLiteral("def hydration(flour, water):").indexOf(QStringLiteral("water")));

        // From "salt" in the first run of prose down into the code block's first line.
        drag(view, characterPoint(prose.at(0), salt), characterPoint(code, water));
        QVERIFY(spansSeveral(view));
        QVERIFY(selected(prose.at(0)).startsWith(QStringLiteral("salt.")));
        QCOMPARE(prose.at(0)->property("selectionEnd").toInt(), prose.at(0)->property("length").toInt());
        QCOMPARE(selected(code), QStringLiteral("def hydration(flour, "));
        QCOMPARE(selected(prose.at(1)), QString());

        // Copy takes the whole span, the table a cell a line as the text item copies it.
        QGuiApplication::clipboard()->setText(QStringLiteral("old"));
        QTest::keyClick(view.window(), Qt::Key_C, Qt::ControlModifier);
        const QString copied = QGuiApplication::clipboard()->text();
        QCOMPARE(copied,
                 QStringLiteral("salt.\n1. Mix everything.\n2. Let it rise overnight.\n3. Bake at 230 \u00b0C.\n"
                                "Flour\nWater\nSalt\n500 g\n350 g\n10 g\ndef hydration(flour, "));

        // The Edit menu's Copy does the same.
        QGuiApplication::clipboard()->setText(QStringLiteral("old"));
        QVERIFY(QMetaObject::invokeMethod(view.window()->findChild<QObject *>("copyItem"), "trigger"));
        QCOMPARE(QGuiApplication::clipboard()->text(), copied);

        // Upwards, from the quote to the middle of the code block.
        const int crumb = static_cast<int>(documentText(prose.at(1)).indexOf(QStringLiteral("crumb")));
        drag(view, characterPoint(prose.at(1), crumb), characterPoint(code, water));
        QCOMPARE(selected(prose.at(0)), QString());
        QCOMPARE(selected(code), QStringLiteral("water):\n    return water / flour * 100"));
        QCOMPARE(selected(prose.at(1)), QStringLiteral("A wetter dough gives a more open "));

        // A drag that comes back to where it started selects only there.
        drag(view, characterPoint(prose.at(1), crumb), characterPoint(prose.at(1), crumb + 5));
        QVERIFY(!spansSeveral(view));
        QCOMPARE(selected(code), QString());
        QCOMPARE(selected(prose.at(1)), QStringLiteral("crumb"));

        // Select All takes the whole reply's text.
        QTest::keyClick(view.window(), Qt::Key_A, Qt::ControlModifier);
        QCOMPARE(selected(prose.at(0)).size(), prose.at(0)->property("length").toInt());
        QCOMPARE(selected(code).size(), code->property("length").toInt());
        QTest::keyClick(view.window(), Qt::Key_C, Qt::ControlModifier);
        QVERIFY(QGuiApplication::clipboard()->text().startsWith(QStringLiteral("Bread in three steps\n")));
        QVERIFY(
            QGuiApplication::clipboard()->text().endsWith(QStringLiteral("A wetter dough gives a more open crumb.")));

        // And so does the Edit menu's Select All, from one item of the reply.
        clickCharacter(view, prose.at(0), salt);
        QCOMPARE(selected(code), QString());
        QVERIFY(QMetaObject::invokeMethod(view.window()->findChild<QObject *>("selectAllItem"), "trigger"));
        QVERIFY(spansSeveral(view));
        QCOMPARE(selected(prose.at(1)).size(), prose.at(1)->property("length").toInt());
        QCOMPARE(selected(code).size(), code->property("length").toInt());

        // A click elsewhere in the reply ends the span.
        clickCharacter(view, prose.at(0), salt);
        QCOMPARE(selected(code), QString());
        QCOMPARE(selected(prose.at(1)), QString());

        // So does the focus going anywhere else, here the composer.
        drag(view, characterPoint(prose.at(0), salt), characterPoint(code, water));
        QVERIFY(spansSeveral(view));
        view.click(view.item("promptField"));
        QVERIFY(!spansSeveral(view));
        QCOMPARE(selected(prose.at(0)), QString());
        QCOMPARE(selected(code), QString());
    }

    void aRightClickCopiesTheWholeSelection()
    {
        ViewHarness view(FakeEngine::stateJson(), {ViewHarness::conversation("Bread", {"how?", markdownReply})});
        const QList<QQuickItem *> prose = view.visibleItems("replyProse");
        QQuickItem *code = view.item("codeText");
        const int salt = static_cast<int>(documentText(prose.at(0)).indexOf(QStringLiteral("salt")));
        drag(view, characterPoint(prose.at(0), salt), characterPoint(code, 4));
        QVERIFY(spansSeveral(view));

        // The right button leaves the selection as it is and opens the menu there.
        QTest::mouseClick(view.window(), Qt::RightButton, Qt::NoModifier, characterPoint(prose.at(0), salt + 2));
        view.settle();
        QVERIFY(spansSeveral(view));
        QObject *menu = prose.at(0)->findChild<QObject *>("textMenu");
        QVERIFY(menu);
        QVERIFY(view.waitFor([&] { return menu->property("opened").toBool(); }));
        view.saveScreenshot(QStringLiteral("text-menu-light"));
        const auto menuItem = [&](const char *name) { return menu->findChild<QQuickItem *>(name); };
        QVERIFY(menuItem("textMenuCopy") && menuItem("textMenuCut") && menuItem("textMenuPaste"));
        // A reply is read, not edited.
        QVERIFY(!menuItem("textMenuCut")->isEnabled());
        QVERIFY(!menuItem("textMenuPaste")->isEnabled());
        QVERIFY(menuItem("textMenuCopy")->isEnabled());
        QGuiApplication::clipboard()->setText(QStringLiteral("old"));
        view.click(menuItem("textMenuCopy"));
        QCOMPARE(QGuiApplication::clipboard()->text(),
                 QStringLiteral("salt.\n1. Mix everything.\n2. Let it rise overnight.\n"
                                "3. Bake at 230 \u00b0C.\nFlour\nWater\nSalt\n500 g\n"
                                "350 g\n10 g\ndef "));

        const QString spanText = QGuiApplication::clipboard()->text();

        // The code block is part of the span too: its menu copies the same, and the
        // right click there leaves the prose selected.
        const auto openCodeMenu = [&] {
            QTest::mouseClick(view.window(), Qt::RightButton, Qt::NoModifier, characterPoint(code, 2));
            QObject *codeMenu = code->findChild<QObject *>("textMenu");
            QVERIFY(codeMenu);
            QVERIFY(view.waitFor([&] { return codeMenu->property("opened").toBool(); }));
        };
        openCodeMenu();
        QVERIFY(spansSeveral(view));
        QVERIFY(view.waitFor([&] { return selected(prose.at(0)).startsWith(QStringLiteral("salt.")); }));
        QGuiApplication::clipboard()->setText(QStringLiteral("old"));
        view.click(code->findChild<QObject *>("textMenu")->findChild<QQuickItem *>("textMenuCopy"));
        QCOMPARE(QGuiApplication::clipboard()->text(), spanText);

        // Select All from there takes the whole reply.
        openCodeMenu();
        view.click(code->findChild<QObject *>("textMenu")->findChild<QQuickItem *>("textMenuSelectAll"));
        QCOMPARE(selected(prose.at(1)).size(), prose.at(1)->property("length").toInt());
        QCOMPARE(selected(prose.at(0)).size(), prose.at(0)->property("length").toInt());

        // A right click outside the reply ends it all, as any click there does.
        QQuickItem *prompt = view.item("promptField");
        QTest::mouseClick(view.window(), Qt::RightButton, Qt::NoModifier,
                          prompt->mapToScene(QPointF(20, prompt->height() / 2)).toPoint());
        view.settle();
        QVERIFY(!spansSeveral(view));
        for (QQuickItem *item : {prose.at(0), prose.at(1), code})
            QCOMPARE(selected(item), QString());
    }

    void aDragThatSelectsScrollsWhileHeldPastTheEdge()
    {
        ViewHarness view(FakeEngine::stateJson(), {ViewHarness::conversation("Long", {"Tell me a lot", longReply()})});
        QQuickItem *list = view.item("messageView");
        list->setProperty("contentY", list->property("originY"));
        view.settle();
        const int listBottom = static_cast<int>(ViewHarness::sceneRect(list).bottom());
        const auto contentY = [&] { return list->property("contentY").toReal(); };
        const qreal top = contentY();

        // A drag that pressed a button selects nothing and scrolls nothing.
        QQuickItem *edit = view.visibleItems("editButton").first();
        const QPoint onButton = edit->mapToScene(QPointF(edit->width() / 2, edit->height() / 2)).toPoint();
        QTest::mousePress(view.window(), Qt::LeftButton, Qt::NoModifier, onButton);
        QTest::mouseMove(view.window(), QPoint(onButton.x(), listBottom + 30));
        QTest::qWait(5 * DragAutoScroll::interval);
        QCOMPARE(contentY(), top);
        QTest::mouseRelease(view.window(), Qt::LeftButton, Qt::NoModifier, QPoint(onButton.x(), listBottom + 30));

        // One that selects text scrolls while it is held below the list.
        QQuickItem *prose = view.visibleItems("replyProse").first();
        const QPoint start = characterPoint(prose, 0);
        const QPoint below(start.x(), listBottom + 30);
        QVERIFY(below.y() < view.window()->height());
        QTest::mousePress(view.window(), Qt::LeftButton, Qt::NoModifier, start);
        QTest::mouseMove(view.window(), start + QPoint(0, 20));
        QTest::mouseMove(view.window(), below);
        const int selectedAtFirst = prose->property("selectionEnd").toInt();
        QVERIFY(view.waitFor([&] { return contentY() > top + 200; }));
        // The selection went on with the text that came up under the pointer.
        QVERIFY(prose->property("selectionEnd").toInt() > selectedAtFirst);
        QCOMPARE(prose->property("selectionStart").toInt(), 0);

        // Letting go stops it.
        QTest::mouseRelease(view.window(), Qt::LeftButton, Qt::NoModifier, below);
        view.settle();
        const qreal released = contentY();
        QTest::qWait(5 * DragAutoScroll::interval);
        QCOMPARE(contentY(), released);
    }

    void longCodeLinesScrollSideways()
    {
        const QString longLine = QStringLiteral("x = [") + QStringLiteral("1234567890, ").repeated(60)
            + QStringLiteral("]");
        ViewHarness view(FakeEngine::stateJson(),
                         {ViewHarness::conversation("Wide", {"code?", "```\n" + longLine + "\nshort\n```"})});
        QQuickItem *scroll = view.item("codeScroll");
        QQuickItem *code = view.item("codeText");
        QVERIFY(scroll->property("contentWidth").toDouble() > scroll->width() * 2);
        // Two lines, unwrapped.
        QCOMPARE(code->property("lineCount").toInt(), 2);
        QVERIFY(view.item("codeBlock")->width() <= view.item("messageView")->width());
    }

    void linksOpenOnlyWhenClickedAndOnlyForTheWeb()
    {
        LinkCatcher catcher;
        QDesktopServices::setUrlHandler(QStringLiteral("https"), &catcher, "open");
        QDesktopServices::setUrlHandler(QStringLiteral("javascript"), &catcher, "open");
        ViewHarness view(
            FakeEngine::stateJson(),
            {ViewHarness::conversation(
                "Links", {"links?", "Read [the guide](https://example.com/guide) or [this](javascript:alert(1))."})});
        QQuickItem *prose = view.visibleItems("replyProse").first();
        QCOMPARE(documentText(prose), QStringLiteral("Read the guide or this."));
        QVERIFY(catcher.opened.isEmpty());
        clickCharacter(view, prose, 7);
        QCOMPARE(catcher.opened, (QList<QUrl>{QUrl(QStringLiteral("https://example.com/guide"))}));
        clickCharacter(view, prose, 19);
        QCOMPARE(catcher.opened.size(), 1);
        QDesktopServices::unsetUrlHandler(QStringLiteral("https"));
        QDesktopServices::unsetUrlHandler(QStringLiteral("javascript"));
    }

    void reasoningIsFoldedAboveTheAnswer()
    {
        ViewHarness view(FakeEngine::stateJson(), {ViewHarness::conversation("Dough", {"hydration?", reasonedReply})});
        QVERIFY(ViewHarness::shown(view.item("reasoningBlock")));
        QCOMPARE(ViewHarness::text(view.item("reasoningLabel")), QStringLiteral("Thought"));
        QVERIFY(!ViewHarness::shown(view.item("reasoningText")));
        QCOMPARE(documentText(view.visibleItems("replyProse").first()), QStringLiteral("The dough is 70 % hydration."));
        view.click(view.item("reasoningToggle"));
        QVERIFY(ViewHarness::shown(view.item("reasoningText")));
        QCOMPARE(ViewHarness::text(view.item("reasoningText")),
                 QStringLiteral("The user asks about hydration. 350 g of water on 500 g of flour is 70 %."));
        // Copying the response copies the reply as stored.
        view.click(view.visibleItems("copyButton").first());
        QCOMPARE(QGuiApplication::clipboard()->text(), reasonedReply);
        view.click(view.item("reasoningToggle"));
        QVERIFY(!ViewHarness::shown(view.item("reasoningText")));
    }

    void streamedReasoningSaysItIsThinkingThenHowLong()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"), {ViewHarness::conversation("Think", {})});
        view.fake().route("POST", "/v1/chat/completions",
                          FakeResponse::stream(reply({FakeResponse::reasoningDelta("Weighing"),
                                                      FakeResponse::reasoningDelta(" options."),
                                                      FakeResponse::delta("Pick "), FakeResponse::delta("the first.")}),
                                               700));
        QVERIFY(view.refresh());
        view.store().setPrompt(QStringLiteral("Which?"));
        view.store().send();
        QVERIFY(view.waitFor([&] { return ViewHarness::shown(view.item("reasoningBlock")); }, 5000));
        QCOMPARE(ViewHarness::text(view.item("reasoningLabel")), QStringLiteral("Thinking\u2026"));
        QVERIFY(view.store().generating());
        QVERIFY(view.waitFor([&] { return !view.store().generating(); }, 10000));
        QVERIFY(view.waitFor(
            [&] { return ViewHarness::text(view.item("reasoningLabel")).startsWith(QStringLiteral("Thought for ")); }));
        QCOMPARE(ViewHarness::text(view.visibleItems("messageText").last()), QStringLiteral("Pick the first."));
        view.click(view.item("reasoningToggle"));
        QCOMPARE(ViewHarness::text(view.item("reasoningText")), QStringLiteral("Weighing options."));
    }

    void anUnclosedFenceGrowsAsCodeWhileStreaming()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"), {ViewHarness::conversation("Code", {})});
        view.fake().route(
            "POST", "/v1/chat/completions",
            FakeResponse::stream(reply({FakeResponse::delta("Here:\n`"), FakeResponse::delta("``"),
                                        FakeResponse::delta("sh\nls -l"), FakeResponse::delta("\necho hi")}),
                                 400));
        QVERIFY(view.refresh());
        view.store().setPrompt(QStringLiteral("List"));
        view.store().send();
        QStringList seenProse;
        QStringList seenCode;
        // How the code's text changes once it is there.
        std::unique_ptr<QSignalSpy> codeChanges;
        QVERIFY(view.waitFor(
            [&] {
                for (QQuickItem *prose : view.visibleItems("replyProse"))
                    seenProse.append(documentText(prose));
                for (QQuickItem *code : view.visibleItems("codeText")) {
                    seenCode.append(ViewHarness::text(code));
                    if (!codeChanges && !seenCode.last().isEmpty())
                        codeChanges = std::make_unique<QSignalSpy>(
                            code->property("textDocument").value<QQuickTextDocument *>()->textDocument(),
                            &QTextDocument::contentsChange);
                }
                return !view.store().generating();
            },
            10000));
        view.settle();
        for (const QString &prose : seenProse)
            QVERIFY2(!prose.contains(QLatin1Char('`')), qPrintable(prose));
        QVERIFY(seenCode.contains(QStringLiteral("ls -l")));
        QCOMPARE(ViewHarness::text(view.visibleItems("codeText").last()), QStringLiteral("ls -l\necho hi"));
        // The code grew in place: appended at its end, nothing taken away.
        QVERIFY(codeChanges);
        QVERIFY(!codeChanges->isEmpty());
        for (const QList<QVariant> &change : std::as_const(*codeChanges)) {
            QCOMPARE(change.at(0).toInt(), 5);
            QCOMPARE(change.at(1).toInt(), 0);
        }
    }

    void aLongConversationMakesOnlyTheBlocksInView()
    {
        QStringList texts;
        for (int index = 0; index < 400; ++index)
            texts.append(index % 2 == 0 ? QStringLiteral("Question %1").arg(index) : markdownReply);
        ViewHarness view(FakeEngine::stateJson(), {ViewHarness::conversation("Long", texts)});
        const int made = static_cast<int>(view.items("messageBlock").size());
        QVERIFY2(made > 0 && made < 40, qPrintable(QString::number(made)));
        QQuickItem *list = view.item("messageView");
        QCOMPARE(list->property("contentY").toDouble(), list->property("originY").toDouble());
        // Scrolled to the end, the last blocks are made and the first ones are gone.
        // Blocks made on the way have their real heights, so it may take more than one go.
        QVERIFY(view.waitFor([&] {
            QMetaObject::invokeMethod(list, "positionViewAtEnd");
            view.settle();
            return list->property("atYEnd").toBool();
        }));
        QVERIFY(view.items("messageBlock").size() < 40);
        QCOMPARE(ViewHarness::text(view.visibleItems("messageText").last()), markdownReply);
    }

    void screenshots()
    {
        const QString shortReply = reasonedReply
            + QStringLiteral("\n\n### In three steps\n\n"
                             "1. Mix `500 g` of flour with `350 g` of water.\n"
                             "2. Rest for an hour, then add the salt.\n\n"
                             "| Flour | Water | Salt |\n|-------|------:|-----:|\n"
                             "| 500 g | 350 g | 10 g |\n\n"
                             "```python\nhydration = water / flour * 100  # percent\n```");
        ViewHarness view(FakeEngine::stateJson("qwen3-4b-q4_k_m.gguf", false, "[]", "[]", 38.4, 312, "cpu"),
                         {ViewHarness::conversation("Bread", {"How wet should bread dough be?", shortReply})});
        QVERIFY(view.refresh());
        view.saveScreenshot(QStringLiteral("markdown-reply-light"));
        view.click(view.item("appearanceDark"));
        view.saveScreenshot(QStringLiteral("markdown-reply-dark"));
        view.click(view.item("reasoningToggle"));
        view.saveScreenshot(QStringLiteral("markdown-thinking-dark"));
        view.click(view.item("appearanceLight"));
        view.saveScreenshot(QStringLiteral("markdown-thinking-light"));

        // One selection from the list down into the code block; a click on the
        // appearance switch would end it, so each appearance drags again.
        for (const QString &appearance : {QStringLiteral("light"), QStringLiteral("dark")}) {
            if (appearance == QStringLiteral("dark"))
                view.click(view.item("appearanceDark"));
            QQuickItem *prose = view.visibleItems("replyProse").last();
            const int rest = static_cast<int>(documentText(prose).indexOf(QStringLiteral("Rest")));
            drag(view, characterPoint(prose, rest), characterPoint(view.item("codeText"), 12));
            QVERIFY(spansSeveral(view));
            view.saveScreenshot(QStringLiteral("markdown-selection-") + appearance);
        }
        // The right-click menu over that selection, in dark.
        QQuickItem *code = view.item("codeText");
        QTest::mouseClick(view.window(), Qt::RightButton, Qt::NoModifier, characterPoint(code, 4));
        QObject *menu = code->findChild<QObject *>("textMenu");
        QVERIFY(menu);
        QVERIFY(view.waitFor([&] { return menu->property("opened").toBool(); }));
        view.saveScreenshot(QStringLiteral("text-menu-dark"));
    }
};

int main(int argc, char *argv[])
{
    ViewHarness::prepareProcess();
    QApplication application(argc, argv);
    ReplyViewTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "ReplyViewTest.moc"
