// The main window: sidebar, header, alert, appearance and the Edit keys.
#include "PlatformText.h"
#include "ScriptedFileChooser.h"
#include "ViewHarness.h"
#include "chat/ConversationListModel.h"
#include "chat/MessageListModel.h"

#include <QApplication>
#include <QClipboard>
#include <QFile>
#include <QQmlProperty>
#include <QSettings>
#include <QtTest>

class WindowTest : public QObject {
    Q_OBJECT

private slots:
    void init() { ViewHarness::resetSettings(); }

    void emptySearchListsEveryConversationAndAFreshStoreHasOne()
    {
        ViewHarness view;
        QCOMPARE(view.listedTitles(), QStringList{"New conversation"});
        view.typeInto(view.item("searchField"), QStringLiteral("zebra"));
        QVERIFY(view.listedTitles().isEmpty());
        QCOMPARE(view.visibleItems("conversationRow").size(), 0);
        view.item("searchField")->setProperty("text", QString());
        view.settle();
        QCOMPARE(view.listedTitles(), QStringList{"New conversation"});
    }

    void searchIgnoresCaseLooksIntoMessagesAndKeepsOrder()
    {
        ViewHarness view(FakeEngine::stateJson(), ViewHarness::threeConversations());
        QCOMPARE(view.listedTitles(), (QStringList{"Trip to Lisbon", "Garden plans", "Taxes"}));

        view.typeInto(view.item("searchField"), QStringLiteral("LISBON"));
        QCOMPARE(view.listedTitles(), QStringList{"Trip to Lisbon"});

        view.item("searchField")->setProperty("text", QString());
        view.typeInto(view.item("searchField"), QStringLiteral("TOMATOES"));
        QCOMPARE(view.listedTitles(), QStringList{"Garden plans"});

        view.item("searchField")->setProperty("text", QString());
        view.typeInto(view.item("searchField"), QStringLiteral("A"));
        // "a" is in every title; order stays as stored.
        QCOMPARE(view.listedTitles(), (QStringList{"Trip to Lisbon", "Garden plans", "Taxes"}));

        view.item("searchField")->setProperty("text", QString());
        view.settle();
        QCOMPARE(view.listedTitles(), (QStringList{"Trip to Lisbon", "Garden plans", "Taxes"}));
        QCOMPARE(view.visibleItems("conversationRow").size(), 3);
    }

    void aSpaceMatchesOnlyTextsWithASpace()
    {
        ViewHarness view(FakeEngine::stateJson(),
                         {ViewHarness::conversation("Solo", {"one", "two"}),
                          ViewHarness::conversation("Two words", {"x"}),
                          ViewHarness::conversation("Plain", {"has a space", "y"})});
        view.typeInto(view.item("searchField"), QStringLiteral(" "));
        QCOMPARE(view.listedTitles(), (QStringList{"Two words", "Plain"}));
    }

    void whileGeneratingRowClicksAndNewConversationAreIgnored()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"), ViewHarness::threeConversations());
        QVERIFY(view.refresh());
        QVERIFY(view.startEndlessReply());
        const QString selected = view.store().selectedIDText();

        const QList<QQuickItem *> rows = view.visibleItems("conversationRow");
        QCOMPARE(rows.size(), 3);
        QVERIFY(!view.item("newConversationButton")->isEnabled());
        view.click(rows.at(2));
        QCOMPARE(view.store().selectedIDText(), selected);
        view.click(view.item("newConversationButton"));
        QCOMPARE(view.store().conversations().size(), 3);

        view.store().stop();
        QVERIFY(view.waitFor([&] { return !view.store().generating(); }));
        QVERIFY(view.item("newConversationButton")->isEnabled());
        view.click(view.visibleItems("conversationRow").at(2));
        QCOMPARE(view.store().selectedIDText(), uuidText(view.store().conversations().at(2).id));
    }

    void newConversationButtonAddsOneOnTop()
    {
        ViewHarness view(FakeEngine::stateJson(), ViewHarness::threeConversations());
        view.click(view.item("newConversationButton"));
        QCOMPARE(view.store().conversations().size(), 4);
        QCOMPARE(view.listedTitles().first(), QStringLiteral("New conversation"));
        QCOMPARE(view.store().selectedIDText(), uuidText(view.store().conversations().first().id));
    }

    void libraryCountLeavesOutProjectors()
    {
        const QByteArray models = "[" + ViewHarness::modelJson("vision.gguf", 1000) + ","
            + ViewHarness::modelJson("vision-mmproj.gguf", 500, true) + "]";
        ViewHarness view(FakeEngine::stateJson({}, false, models));
        QCOMPARE(ViewHarness::text(view.item("libraryCount")), QStringLiteral("0"));
        QVERIFY(view.refresh());
        QCOMPARE(ViewHarness::text(view.item("libraryCount")), QStringLiteral("1"));
        view.click(view.item("sidebarLibraryButton"));
        QVERIFY(view.store().showLibrary());
    }

    void engineIndicatorFollowsReady()
    {
        ViewHarness view;
        QCOMPARE(ViewHarness::text(view.item("engineText")), QStringLiteral("Starting engine\u2026"));
        QVERIFY(view.refresh());
        QVERIFY(view.store().ready());
        QCOMPARE(ViewHarness::text(view.item("engineText")), QStringLiteral("Private \u00b7 local engine"));
    }

    void darkAppearanceRecoloursAtOnceAndSurvivesARelaunch()
    {
        {
            ViewHarness view;
            const QColor lightSidebar = view.item("sidebar")->property("color").value<QColor>();
            view.click(view.item("appearanceDark"));
            QCOMPARE(QSettings().value("appearance").toString(), QStringLiteral("dark"));
            const QColor sidebar = view.item("sidebar")->property("color").value<QColor>();
            const QColor main = view.item("mainColumn")->property("color").value<QColor>();
            QVERIFY(sidebar != lightSidebar);
            QCOMPARE(sidebar, QColor::fromRgbF(0.09f, 0.115f, 0.145f));
            QCOMPARE(main, QColor::fromRgbF(0.07f, 0.09f, 0.12f));
        }
        ViewHarness relaunched;
        QCOMPARE(relaunched.item("mainColumn")->property("color").value<QColor>(),
                 QColor::fromRgbF(0.07f, 0.09f, 0.12f));
        QVERIFY(relaunched.item("appearanceDark")->property("chosen").toBool());
        relaunched.click(relaunched.item("appearanceLight"));
        QCOMPARE(QSettings().value("appearance").toString(), QStringLiteral("light"));
        QVERIFY(relaunched.item("mainColumn")->property("color").value<QColor>()
                != QColor::fromRgbF(0.07f, 0.09f, 0.12f));
    }

    void anUnknownAppearanceIsLightWithNoSegmentChosen()
    {
        QSettings().setValue("appearance", "Dark");
        ViewHarness view;
        QVERIFY(view.item("mainColumn")->property("color").value<QColor>() != QColor::fromRgbF(0.07f, 0.09f, 0.12f));
        QVERIFY(!view.item("appearanceDark")->property("chosen").toBool());
        QVERIFY(!view.item("appearanceLight")->property("chosen").toBool());
    }

    void headerOnAFreshInstall()
    {
        ViewHarness view;
        QVERIFY(view.refresh());
        QCOMPARE(ViewHarness::text(view.item("headerTitle")), QStringLiteral("No model loaded"));
        QVERIFY(!ViewHarness::shown(view.item("backendBadge")));
        QVERIFY(!view.item("exportButton")->isEnabled());
        QVERIFY(!ViewHarness::shown(view.item("headerBusy")));
        view.click(view.item("headerLibraryButton"));
        QVERIFY(view.store().showLibrary());
    }

    void headerBadgeNamesTheGpuOnlyForGpu()
    {
        ViewHarness view(FakeEngine::stateJson("llama.gguf-q4.gguf", false, "[]", "[]", 0, 0, "gpu"));
        QVERIFY(view.refresh());
        QCOMPARE(ViewHarness::text(view.item("headerTitle")), QStringLiteral("llama-q4"));
        QVERIFY(ViewHarness::shown(view.item("backendBadge")));
        QCOMPARE(ViewHarness::text(view.item("backendBadge")),
                 PlatformText::expected(QStringLiteral("METAL"), QStringLiteral("GPU")));

        view.setEngineState(FakeEngine::stateJson("m.gguf", false, "[]", "[]", 0, 0, "vulkan"));
        QVERIFY(view.refresh());
        QCOMPARE(ViewHarness::text(view.item("backendBadge")), QStringLiteral("CPU"));

        view.setEngineState(FakeEngine::stateJson("m.gguf", false, "[]", "[]", 0, 0, "GPU"));
        QVERIFY(view.refresh());
        QCOMPARE(ViewHarness::text(view.item("backendBadge")), QStringLiteral("CPU"));

        QByteArray noBackend = FakeEngine::stateJson("m.gguf");
        noBackend.replace("\"backend\":\"cpu\"", "\"backend\":null");
        view.setEngineState(noBackend);
        QVERIFY(view.refresh());
        QCOMPARE(ViewHarness::text(view.item("backendBadge")), QStringLiteral("CPU"));
    }

    void headerShowsActivityAndABusyIndicatorWhileLoading()
    {
        ViewHarness view;
        const QString tagline = ViewHarness::text(view.item("headerSubtitle"));
        QVERIFY(!tagline.isEmpty());
        view.store().engine().setActivity(QStringLiteral("Loading m.gguf"));
        view.store().library().setLoading(true);
        view.settle();
        QCOMPARE(ViewHarness::text(view.item("headerSubtitle")), QStringLiteral("Loading m.gguf"));
        QVERIFY(ViewHarness::shown(view.item("headerBusy")));
        view.store().library().setLoading(false);
        view.settle();
        QCOMPARE(ViewHarness::text(view.item("headerSubtitle")), tagline);
        QVERIFY(!ViewHarness::shown(view.item("headerBusy")));
    }

    void exportButtonWritesTheConversation()
    {
        ViewHarness view(FakeEngine::stateJson(), ViewHarness::threeConversations());
        auto chooser = std::make_shared<ScriptedFileChooser>();
        const QString target = view.home().path() + QStringLiteral("/export.txt");
        chooser->saveAnswers.append(target);
        view.store().setFileChooser(chooser);
        QVERIFY(view.item("exportButton")->isEnabled());
        QCOMPARE(view.item("exportButton")->property("help").toString(), QStringLiteral("Export conversation"));
        view.click(view.item("exportButton"));
        QVERIFY(view.waitFor([&] { return QFile::exists(target); }));
        QFile file(target);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(QString::fromUtf8(file.readAll()).contains(QStringLiteral("Where should we eat?")));
    }

    void errorAlertShowsUntilOK()
    {
        ViewHarness view;
        QVERIFY(!view.object("errorAlert")->property("visible").toBool());
        view.store().setError(QStringLiteral("Something went wrong."));
        view.settle();
        QVERIFY(view.object("errorAlert")->property("visible").toBool());
        QCOMPARE(ViewHarness::text(view.item("alertTitle")), QStringLiteral("Vorn"));
        QCOMPARE(ViewHarness::text(view.item("alertMessage")), QStringLiteral("Something went wrong."));
        QCOMPARE(ViewHarness::text(view.item("alertOK")), QStringLiteral("OK"));
        view.saveScreenshot(QStringLiteral("alert"));

        view.click(view.item("alertOK"));
        QVERIFY(!view.store().error());
        QVERIFY(view.waitFor([&] { return !view.object("errorAlert")->property("visible").toBool(); }));
        view.settle();
        QVERIFY(!view.object("errorAlert")->property("visible").toBool());

        view.store().setError(QStringLiteral("Again."));
        view.settle();
        QVERIFY(view.object("errorAlert")->property("visible").toBool());
        QCOMPARE(ViewHarness::text(view.item("alertMessage")), QStringLiteral("Again."));
    }

    void editKeysWorkInTheSearchAndComposerFields()
    {
        ViewHarness view;
        QQuickItem *search = view.item("searchField");
        view.typeInto(search, QStringLiteral("hello"));
        view.key(Qt::Key_A, Qt::ControlModifier);
        QCOMPARE(search->property("selectedText").toString(), QStringLiteral("hello"));
        view.key(Qt::Key_C, Qt::ControlModifier);
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("hello"));

        QQuickItem *prompt = view.item("promptField");
        prompt->forceActiveFocus();
        view.key(Qt::Key_V, Qt::ControlModifier);
        QCOMPARE(view.store().prompt(), QStringLiteral("hello"));
        view.key(Qt::Key_Z, Qt::ControlModifier);
        QCOMPARE(view.store().prompt(), QString());
        // No Redo.
        view.key(Qt::Key_Z, Qt::ControlModifier | Qt::ShiftModifier);
        QCOMPARE(view.store().prompt(), QString());

        view.typeInto(search, QStringLiteral("x"));
        view.key(Qt::Key_Z, Qt::ControlModifier);
        const QString undone = search->property("text").toString();
        view.key(Qt::Key_Z, Qt::ControlModifier | Qt::ShiftModifier);
        QCOMPARE(search->property("text").toString(), undone);
    }

    void editMenuItemsActOnTheLastFocusedField()
    {
        ViewHarness view;
        QQuickItem *prompt = view.item("promptField");
        view.typeInto(prompt, QStringLiteral("menu text"));
        QObject *selectAll = view.window()->findChild<QObject *>("selectAllItem");
        QObject *copy = view.window()->findChild<QObject *>("copyItem");
        QObject *cut = view.window()->findChild<QObject *>("cutItem");
        QObject *paste = view.window()->findChild<QObject *>("pasteItem");
        QVERIFY(selectAll && copy && cut && paste);
        QCOMPARE(selectAll->property("text").toString(), QStringLiteral("Select All"));
        QVERIFY(QMetaObject::invokeMethod(selectAll, "trigger"));
        QVERIFY(QMetaObject::invokeMethod(copy, "trigger"));
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("menu text"));
        QVERIFY(QMetaObject::invokeMethod(cut, "trigger"));
        view.settle();
        QCOMPARE(view.store().prompt(), QString());
        QVERIFY(QMetaObject::invokeMethod(paste, "trigger"));
        view.settle();
        QCOMPARE(view.store().prompt(), QStringLiteral("menu text"));
        // The Edit menu has no Redo item.
        QVERIFY(!view.window()->findChild<QObject *>("redoItem"));
    }

    void theComposersRightClickMenuCutsCopiesAndPastes()
    {
        ViewHarness view;
        QQuickItem *prompt = view.item("promptField");
        view.typeInto(prompt, QStringLiteral("menu text"));
        const QPoint inside = prompt->mapToScene(QPointF(20, prompt->height() / 2)).toPoint();
        const auto choose = [&](const char *name) {
            QTest::mouseClick(view.window(), Qt::RightButton, Qt::NoModifier, inside);
            QObject *menu = prompt->findChild<QObject *>("textMenu");
            QVERIFY(menu);
            QVERIFY(view.waitFor([&] { return menu->property("opened").toBool(); }));
            QQuickItem *item = menu->findChild<QQuickItem *>(name);
            QVERIFY(item);
            QVERIFY(item->isEnabled());
            view.click(item);
            QVERIFY(view.waitFor([&] { return !menu->property("opened").toBool(); }));
        };
        choose("textMenuSelectAll");
        choose("textMenuCut");
        QCOMPARE(view.store().prompt(), QString());
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("menu text"));
        choose("textMenuPaste");
        QCOMPARE(view.store().prompt(), QStringLiteral("menu text"));
    }

    // The conversation rows line up with the search field and the buttons above them.
    void conversationRowsSpanTheSidebar()
    {
        ViewHarness view(FakeEngine::stateJson(), ViewHarness::threeConversations());
        const QRectF search = ViewHarness::sceneRect(view.item("searchField"));
        const QRectF newConversation = ViewHarness::sceneRect(view.item("newConversationButton"));
        QCOMPARE(newConversation.right(), search.right());
        for (QQuickItem *row : view.visibleItems("conversationRow")) {
            QCOMPARE(ViewHarness::sceneRect(row).left(), search.left());
            QCOMPARE(ViewHarness::sceneRect(row).right(), search.right());
        }
    }

    // A disabled send button dims its arrow with it.
    void aDisabledSendButtonDimsItsArrow()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"));
        QVERIFY(view.refresh());
        QVERIFY(!view.item("sendButton")->isEnabled());
        const qreal dimmed = ViewHarness::drawnOpacity(view.item("sendSymbol"));
        QVERIFY2(dimmed < 0.6, qPrintable(QString::number(dimmed)));
        view.store().setPrompt(QStringLiteral("Hi"));
        view.settle();
        QVERIFY(view.item("sendButton")->isEnabled());
        QCOMPARE(ViewHarness::drawnOpacity(view.item("sendSymbol")), 1.0);
    }

    void mainScreenshots()
    {
        {
            ViewHarness view(FakeEngine::stateJson());
            QVERIFY(view.refresh());
            view.saveScreenshot(QStringLiteral("empty-light"));
            view.click(view.item("appearanceDark"));
            view.saveScreenshot(QStringLiteral("empty-dark"));
        }
    }
};

int main(int argc, char *argv[])
{
    ViewHarness::prepareProcess();
    QApplication application(argc, argv);
    WindowTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "WindowTest.moc"
