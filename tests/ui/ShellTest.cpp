// The application shell: launch, window, status item, about panel.
#include "AppDelegate.h"
#include "AppIconArt.h"
#include "FakeEngine.h"
#include "TestHome.h"
#include "ViewHarness.h"
#include "chat/ConversationListModel.h"
#include "engine/EngineConnection.h"
#include "engine/EngineStore.h"

#include <QAction>
#include <QApplication>
#include <QFile>
#include <QMenu>
#include <QMessageBox>
#include <QQmlApplicationEngine>
#include <QQuickItem>
#include <QSettings>
#include <QSystemTrayIcon>
#include <QTemporaryDir>
#include <QtTest>
#include <optional>

class ShellTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_engineFolder;

    // Each test's throw-away home, for the shell it builds.
    std::optional<TestHome> m_home;

    // Something that runs in place of the engine and answers nothing.
    bool useSilentEngine()
    {
        const QString path = m_engineFolder.filePath(QStringLiteral("vorn-engine"));
        QFile script(path);
        if (!script.open(QIODevice::WriteOnly) || script.write("#!/bin/sh\nexec sleep 30\n") < 0)
            return false;
        script.close();
        script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        EngineConnection::setEngineLocationForTesting(path);
        return true;
    }

    static QQuickItem *find(AppDelegate &shell, const QString &name)
    {
        QList<QQuickItem *> pending{shell.window()->contentItem()};
        while (!pending.isEmpty()) {
            QQuickItem *item = pending.takeFirst();
            if (item->objectName() == name)
                return item;
            pending.append(item->childItems());
        }
        return nullptr;
    }

    static QStringList menuTitles(QMenu *menu)
    {
        QStringList titles;
        for (QAction *action : menu->actions())
            titles.append(action->isSeparator() ? QStringLiteral("-") : action->text());
        return titles;
    }

    static QAction *menuAction(AppDelegate &shell, const QString &title)
    {
        for (QAction *action : shell.statusMenu()->actions()) {
            if (action->text() == title)
                return action;
        }
        return nullptr;
    }

private slots:
    void initTestCase() { QVERIFY(useSilentEngine()); }
    void init()
    {
        ViewHarness::resetSettings();
        m_home.emplace();
    }
    void cleanup() { m_home.reset(); }

    void launchShowsTheWindowThenStartsTheEngine()
    {
        AppDelegate shell(true);
        QVERIFY(!shell.window());
        QVERIFY(!shell.store().process());
        shell.launch();
        QVERIFY(shell.window());
        QVERIFY(QTest::qWaitForWindowExposed(shell.window()));
        QVERIFY(shell.store().process());
        QCOMPARE(shell.window()->title(), QStringLiteral("Vorn"));
        QCOMPARE(shell.window()->size(), QSize(1180, 790));
        QCOMPARE(shell.window()->minimumSize(), QSize(920, 660));
        QVERIFY(find(shell, QStringLiteral("desktopView")));
        shell.store().shutdown();
    }

    void statusItemAndItsMenu()
    {
        AppDelegate shell(true);
        shell.launch();
        QCOMPARE(shell.statusItem()->toolTip(), QStringLiteral("Vorn \u00b7 local inference"));
        QCOMPARE(menuTitles(shell.statusMenu()),
                 (QStringList{"Open Vorn", "New conversation", QStringLiteral("Model library\u2026"), "-",
                              QStringLiteral("Starting local engine\u2026"), "-", "Quit Vorn"}));
        QVERIFY(!shell.statusLine()->isEnabled());
        QVERIFY(!shell.statusItem()->icon().isNull());
        shell.store().shutdown();
    }

    void statusLineFollowsTheEngine()
    {
        FakeEngine fake;
        QVERIFY(fake.listen());
        fake.setState(FakeEngine::stateJson(QStringLiteral("llama.gguf-q4.gguf")));
        AppDelegate shell(true);
        shell.launch();
        QCOMPARE(shell.statusLine()->text(), QStringLiteral("Starting local engine\u2026"));
        shell.store().engine().client().setBaseURL(fake.baseURL());
        bool done = false;
        shell.store().refresh([&](bool) { done = true; });
        QVERIFY(QTest::qWaitFor([&] { return done; }));
        QCOMPARE(shell.statusLine()->text(), QStringLiteral("llama-q4"));
        QCOMPARE(shell.statusItem()->toolTip(), QStringLiteral("Vorn \u00b7 Model ready"));

        fake.setState(FakeEngine::stateJson());
        done = false;
        shell.store().refresh([&](bool) { done = true; });
        QVERIFY(QTest::qWaitFor([&] { return done; }));
        QCOMPARE(shell.statusLine()->text(), QStringLiteral("No model loaded"));
        QCOMPARE(shell.statusItem()->toolTip(), QStringLiteral("Vorn \u00b7 Ready on this computer"));
        shell.store().shutdown();
    }

    void closingHidesAndOpenVornBringsBackTheSameWindow()
    {
        AppDelegate shell(true);
        shell.launch();
        QVERIFY(!QGuiApplication::quitOnLastWindowClosed());
        QQuickWindow *window = shell.window();
        QVERIFY(QTest::qWaitForWindowExposed(window));
        shell.store().setPrompt(QStringLiteral("draft in progress"));
        window->close();
        QTRY_VERIFY(!window->isVisible());
        QCOMPARE(shell.window(), window);
        menuAction(shell, QStringLiteral("Open Vorn"))->trigger();
        QVERIFY(window->isVisible());
        QCOMPARE(shell.window(), window);
        QCOMPARE(find(shell, QStringLiteral("promptField"))->property("text").toString(),
                 QStringLiteral("draft in progress"));
        shell.store().shutdown();
    }

    void withoutATrayClosingQuits()
    {
        AppDelegate shell(false);
        shell.launch();
        QVERIFY(QGuiApplication::quitOnLastWindowClosed());
        shell.store().shutdown();
        QGuiApplication::setQuitOnLastWindowClosed(false);
    }

    void newConversationFromTheStatusMenuShowsTheWindow()
    {
        AppDelegate shell(true);
        shell.launch();
        shell.window()->close();
        QTRY_VERIFY(!shell.window()->isVisible());
        const qsizetype before = shell.store().conversations().size();
        menuAction(shell, QStringLiteral("New conversation"))->trigger();
        QCOMPARE(shell.store().conversations().size(), before + 1);
        QVERIFY(shell.window()->isVisible());
        shell.store().shutdown();
    }

    void modelLibraryFromTheStatusMenuPresentsTheSheet()
    {
        AppDelegate shell(true);
        shell.launch();
        shell.window()->close();
        QTRY_VERIFY(!shell.window()->isVisible());
        menuAction(shell, QStringLiteral("Model library\u2026"))->trigger();
        QVERIFY(shell.window()->isVisible());
        QVERIFY(shell.store().showLibrary());
        QObject *sheet = shell.window()->findChild<QObject *>(QStringLiteral("librarySheet"));
        QVERIFY(sheet);
        QTRY_VERIFY(sheet->property("visible").toBool());
        shell.store().shutdown();
    }

    void windowFrameIsSavedAndRestored()
    {
        {
            AppDelegate shell(true);
            shell.launch();
            QVERIFY(QTest::qWaitForWindowExposed(shell.window()));
            shell.window()->setGeometry(QRect(40, 50, 1000, 700));
            shell.window()->close();
            QTRY_VERIFY(!shell.window()->isVisible());
            shell.store().shutdown();
        }
        QVERIFY(QSettings().contains(QStringLiteral("VornDesktop/frame")));
        AppDelegate relaunched(true);
        relaunched.launch();
        QCOMPARE(relaunched.window()->size(), QSize(1000, 700));
        relaunched.store().shutdown();
    }

    void aboutPanelNamesVersionAndMaker()
    {
        QCoreApplication::setApplicationVersion(QString());
        QCOMPARE(AppDelegate::versionText(), QStringLiteral("0.2.2"));
        AppDelegate shell(true);
        shell.about();
        QVERIFY(shell.aboutPanel());
        QCOMPARE(shell.aboutPanel()->text(), QStringLiteral("Vorn"));
        QVERIFY(shell.aboutPanel()->informativeText().contains(QStringLiteral("Version 0.2.2")));
        QVERIFY(shell.aboutPanel()->informativeText().contains(QStringLiteral("Vorn developers")));
        shell.aboutPanel()->close();

        QCoreApplication::setApplicationVersion(QStringLiteral("1.4.0"));
        QCOMPARE(AppDelegate::versionText(), QStringLiteral("1.4.0"));
        QCoreApplication::setApplicationVersion(QString());
    }

    void mainMenuHasTheAppAndEditItems()
    {
        AppDelegate shell(true);
        shell.launch();
        QStringList titles;
        for (const char *name :
             {"aboutItem", "quitItem", "undoItem", "cutItem", "copyItem", "pasteItem", "selectAllItem"}) {
            QObject *item = shell.window()->findChild<QObject *>(QLatin1String(name));
            QVERIFY2(item, name);
            titles.append(item->property("text").toString());
        }
        QCOMPARE(titles, (QStringList{"About Vorn", "Quit Vorn", "Undo", "Cut", "Copy", "Paste", "Select All"}));
        QVERIFY(!shell.window()->findChild<QObject *>(QStringLiteral("redoItem")));
        QVERIFY(QMetaObject::invokeMethod(shell.window()->findChild<QObject *>("aboutItem"), "triggered"));
        QVERIFY(shell.aboutPanel());
        shell.aboutPanel()->close();
        shell.store().shutdown();
    }

    void trayImageHasThreeRingedStems()
    {
        const QImage image = AppIconArt::trayImage(20, Qt::black);
        QCOMPARE(image.size(), QSize(20, 20));
        const auto inked = [&](int x, int y) { return qAlpha(image.pixel(x, y)) > 100; };
        // Stems run from y 3 to 10 at x 4, 10 and 16 (top-left origin).
        QVERIFY(inked(4, 6) && inked(10, 6) && inked(16, 6));
        // Between the stems there is nothing.
        QVERIFY(!inked(7, 6) && !inked(13, 6));
        // They meet near the bottom in the middle.
        QVERIFY(inked(10, 16));
        QVERIFY(!inked(2, 16) && !inked(18, 16));
    }
};

int main(int argc, char *argv[])
{
    ViewHarness::prepareProcess();
    QApplication application(argc, argv);
    QGuiApplication::setQuitOnLastWindowClosed(false);
    ShellTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "ShellTest.moc"
