// The application as a user meets it: the real shell and window start the real engine
// on an empty home; a model is added through the library, loaded, asked a question in
// the composer; the conversation is exported, the app quits and starts again; a model
// is downloaded through the library from a local stand-in for the hub. Every step is
// worked through the window and saved as a screenshot.
#include "AppDelegate.h"
#include "BuiltEngine.h"
#include "ListModelChecks.h"
#include "LoopbackHub.h"
#include "PlatformText.h"
#include "ScriptedFileChooser.h"
#include "TestHome.h"
#include "TestModels.h"
#include "ViewHarness.h"
#include "WindowDriver.h"
#include "engine/EngineStore.h"
#include "model/ByteCountText.h"
#include "model/HistoryFile.h"

#include <QAction>
#include <QApplication>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTimer>
#include <QtTest>

#include <csignal>

namespace {

constexpr int engineStartMs = 60000;
constexpr int modelLoadMs = 60000;
constexpr int replyMs = 60000;

bool processGone(qint64 pid)
{
    return pid > 0 && ::kill(static_cast<pid_t>(pid), 0) != 0;
}

// What a user does to quit: the application's quit, through its event loop, so the
// shell's quit handling runs as it does for a user.
void quitTheApp(AppDelegate &shell)
{
    QTimer::singleShot(0, &shell, &AppDelegate::quit);
    QCoreApplication::exec();
}

} // namespace

class AppEndToEndTest : public QObject {
    Q_OBJECT

private:
    std::shared_ptr<ScriptedFileChooser> m_chooser;
    std::unique_ptr<StoreListModelChecks> m_checks;

    // Launches the app as main() does, with the scripted chooser in place of dialogs.
    // The driver is left without a window when none came on screen.
    std::unique_ptr<AppDelegate> launch(WindowDriver &driver)
    {
        auto shell = std::make_unique<AppDelegate>();
        shell->store().setFileChooser(m_chooser);
        m_checks = std::make_unique<StoreListModelChecks>(shell->store());
        shell->launch();
        driver.setWindow(shell->window());
        if (auto *filter = qobject_cast<QAbstractItemModel *>(driver.object(QStringLiteral("conversationFilter"))))
            m_checks->addProxy(filter);
        if (!shell->window() || !QTest::qWaitForWindowExposed(shell->window()))
            driver.setWindow(nullptr);
        return shell;
    }

    static QStringList shownTexts(const WindowDriver &driver, const QString &objectName)
    {
        QStringList texts;
        for (QQuickItem *item : driver.visibleItems(objectName))
            texts.append(WindowDriver::text(item));
        return texts;
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(BuiltEngine::use(), "vorn-engine is not built next to the app");
        QVERIFY(QFileInfo::exists(TestModels::path(QStringLiteral("stories260K.gguf"))));
    }

    void init()
    {
        ViewHarness::resetSettings();
        m_chooser = std::make_shared<ScriptedFileChooser>();
    }

    void importLoadAskExportAndRestart()
    {
        TestHome home;
        const QString modelPath = TestModels::path(QStringLiteral("stories260K.gguf"));
        const qint64 modelSize = QFileInfo(modelPath).size();
        const QString question = QStringLiteral("Once upon a time");
        QString reply;
        QString conversationID;
        qint64 firstEnginePid = 0;

        {
            WindowDriver window;
            std::unique_ptr<AppDelegate> shell = launch(window);
            QVERIFY(window.window());
            EngineStore &store = shell->store();

            // The engine comes up by itself.
            QVERIFY(window.waitFor([&] { return store.ready(); }, engineStartMs));
            QCOMPARE(store.activity(), PlatformText::readyActivity());
            QCOMPARE(WindowDriver::text(window.item(QStringLiteral("engineText"))),
                     QStringLiteral("Private \u00b7 local engine"));
            QCOMPARE(WindowDriver::text(window.item(QStringLiteral("headerTitle"))), QStringLiteral("No model loaded"));
            QVERIFY(store.process());
            firstEnginePid = store.process()->processId();
            window.saveScreenshot(QStringLiteral("app-1-ready"));

            // The library, empty, then a model added with "Add GGUF files".
            window.click(window.item(QStringLiteral("headerLibraryButton")));
            QVERIFY(store.showLibrary());
            QVERIFY(WindowDriver::shown(window.item(QStringLiteral("emptyLibraryNote"))));
            m_chooser->openAnswers.append(QStringList{modelPath});
            window.click(window.item(QStringLiteral("addModelsButton")));
            QCOMPARE(m_chooser->openRequests.size(), 1);
            QVERIFY(window.waitFor([&] { return window.visibleItems(QStringLiteral("modelRow")).size() == 1; }, 10000));
            QCOMPARE(shownTexts(window, QStringLiteral("modelName")), QStringList{QStringLiteral("stories260K.gguf")});
            QCOMPARE(shownTexts(window, QStringLiteral("modelSize")), QStringList{byteCountText(modelSize)});
            // What the engine read from the model's header, and its KV cache at 4096 tokens.
            QCOMPARE(shownTexts(window, QStringLiteral("modelDetails")),
                     QStringList{QStringLiteral("llama \u00b7 293K \u00b7 F32 \u00b7 2K context")});
            QCOMPARE(shownTexts(window, QStringLiteral("modelKvCache")),
                     QStringList{QStringLiteral(" \u00b7 KV cache for 4K context: 2.6 MB")});
            QVERIFY(!WindowDriver::shown(window.item(QStringLiteral("emptyLibraryNote"))));
            QVERIFY(QFileInfo::exists(QDir(home.modelsFolder()).filePath(QStringLiteral("stories260K.gguf"))));
            window.saveScreenshot(QStringLiteral("app-2-model-added"));

            // Load it.
            QQuickItem *load = window.visibleItems(QStringLiteral("modelActionButton")).value(0);
            QCOMPARE(WindowDriver::text(load), QStringLiteral("Load"));
            window.click(load);
            QVERIFY(window.waitFor([&] { return store.hasLoadedModel() && !store.loading(); }, modelLoadMs));
            QVERIFY2(!store.error(), qPrintable(store.error().value_or(QString())));
            // The next status poll says so.
            QVERIFY(window.waitFor([&] { return store.activity() == QStringLiteral("Model ready"); }, 10000));
            QCOMPARE(WindowDriver::text(window.visibleItems(QStringLiteral("modelActionButton")).value(0)),
                     QStringLiteral("Unload"));
            QCOMPARE(WindowDriver::text(window.item(QStringLiteral("headerTitle"))), QStringLiteral("stories260K"));
            QVERIFY(shell->statusLine());
            QCOMPARE(shell->statusLine()->text(), QStringLiteral("stories260K"));
            window.saveScreenshot(QStringLiteral("app-3-model-loaded"));
            window.click(window.item(QStringLiteral("doneButton")));
            QVERIFY(!store.showLibrary());

            // A question typed into the composer; Return sends it.
            store.setTemperature(0);
            store.setTokenLimit(256);
            window.typeInto(window.item(QStringLiteral("promptField")), question + QLatin1Char('\n'));
            QVERIFY(window.waitFor([&] { return store.messages().size() == 2; }, 5000));
            QVERIFY(window.waitFor([&] { return !store.generating(); }, replyMs));
            QVERIFY2(!store.error(), qPrintable(store.error().value_or(QString())));
            reply = store.messages().last().text;
            QVERIFY(!reply.isEmpty());
            QVERIFY(reply != QStringLiteral("The request did not complete."));
            QCOMPARE(store.prompt(), QString());
            // The transcript shows both messages, the reply in full.
            QVERIFY(window.waitFor(
                [&] {
                    return shownTexts(window, QStringLiteral("messageText")) == QStringList{question, reply};
                },
                5000));
            QCOMPARE(shownTexts(window, QStringLiteral("messageCaption")),
                     (QStringList{QStringLiteral("YOU"), QStringLiteral("VORN")}));
            // The footer gives the last reply's speed and length.
            QVERIFY(window.waitFor([&] { return store.state() && store.state()->last.decode_tps > 0; }, 10000));
            const QString speed = WindowDriver::text(window.item(QStringLiteral("throughputLabel")));
            QVERIFY2(QRegularExpression(QStringLiteral("^Last reply \u00b7 \\d+\\.\\d tok/s$")).match(speed).hasMatch(),
                     qPrintable(speed));
            QCOMPARE(WindowDriver::text(window.item(QStringLiteral("tokensLabel"))),
                     QStringLiteral(" %1 tokens").arg(static_cast<qint64>(store.state()->last.completion_tokens)));
            // And the conversation's use of the context, as the reply told it.
            const QString meter = WindowDriver::text(window.item(QStringLiteral("contextMeter")));
            QVERIFY2(WindowDriver::shown(window.item(QStringLiteral("contextMeter")))
                         && QRegularExpression(QStringLiteral("^[\\d,]+ / 4,096 tokens$")).match(meter).hasMatch(),
                     qPrintable(meter));
            // The sidebar lists the conversation under its first words.
            QCOMPARE(window.visibleItems(QStringLiteral("conversationRow")).size(), 1);
            conversationID = store.selectedIDText();
            QVERIFY(!conversationID.isEmpty());
            window.saveScreenshot(QStringLiteral("app-4-reply"));

            // Export through the header's button.
            const QString exported = QDir(home.path()).filePath(QStringLiteral("exported.txt"));
            m_chooser->saveAnswers.append(exported);
            window.click(window.item(QStringLiteral("exportButton")));
            QCOMPARE(m_chooser->proposedSaveNames, QStringList{QStringLiteral("Vorn conversation.txt")});
            QFile file(exported);
            QVERIFY(file.open(QIODevice::ReadOnly));
            QCOMPARE(QString::fromUtf8(file.readAll()),
                     QStringLiteral("USER\n") + question + QStringLiteral("\n\nASSISTANT\n") + reply);

            // Quit as a user does: the engine is stopped and the history kept.
            quitTheApp(*shell);
            QVERIFY(QTest::qWaitFor([&] { return processGone(firstEnginePid); }, 10000));
        }

        const auto saved = HistoryFile::load(home.historyFile());
        QVERIFY(saved);
        QCOMPARE(saved->size(), 1);
        QCOMPARE(saved->first().messages.last().text, reply);

        // Started again: the conversation is there and selected, on a new engine.
        WindowDriver window;
        std::unique_ptr<AppDelegate> shell = launch(window);
        QVERIFY(window.window());
        EngineStore &store = shell->store();
        QCOMPARE(store.selectedIDText(), conversationID);
        QVERIFY(window.waitFor(
            [&] {
                return shownTexts(window, QStringLiteral("messageText")) == QStringList{question, reply};
            },
            5000));
        const QList<QQuickItem *> rows = window.visibleItems(QStringLiteral("conversationRow"));
        QCOMPARE(rows.size(), 1);
        QVERIFY(rows.first()->property("selected").toBool());
        QVERIFY(window.waitFor([&] { return store.ready(); }, engineStartMs));
        QVERIFY(store.process()->processId() != firstEnginePid);
        QCOMPARE(store.state()->models.size(), 1);
        window.saveScreenshot(QStringLiteral("app-5-restarted"));
        shell->store().shutdown();
    }

    void downloadThroughTheLibrary()
    {
        TestHome home;
        const QByteArray contents = TestModels::contents(QStringLiteral("stories260K.gguf"));
        QVERIFY(!contents.isEmpty());
        // The hub, on loopback: slow enough that the progress row is seen.
        LoopbackHub hub("/tester/tiny/resolve/main/tiny-stories.gguf", contents, 16 * 1024, 60);
        QVERIFY(hub.listening());

        WindowDriver window;
        std::unique_ptr<AppDelegate> shell = launch(window);
        QVERIFY(window.window());
        EngineStore &store = shell->store();
        QVERIFY(window.waitFor([&] { return store.ready(); }, engineStartMs));

        window.click(window.item(QStringLiteral("headerLibraryButton")));
        QVERIFY(store.showLibrary());
        const QString link = hub.link();
        window.typeInto(window.item(QStringLiteral("downloadLinkField")), link);
        QCOMPARE(WindowDriver::text(window.item(QStringLiteral("downloadLinkField"))), link);
        window.click(window.item(QStringLiteral("downloadButton")));

        // The progress row, partway.
        QVERIFY(window.waitFor(
            [&] {
                const QList<QQuickItem *> rows = window.visibleItems(QStringLiteral("downloadRow"));
                const QQuickItem *bar = window.visibleItems(QStringLiteral("downloadProgress")).value(0);
                return rows.size() == 1 && bar && bar->property("value").toDouble() > 0.05
                    && bar->property("value").toDouble() < 0.95;
            },
            30000));
        QCOMPARE(shownTexts(window, QStringLiteral("downloadName")), QStringList{QStringLiteral("tiny-stories.gguf")});
        QVERIFY(
            shownTexts(window, QStringLiteral("downloadReceived")).value(0).endsWith(QStringLiteral(" downloaded")));
        // The link stays as typed.
        QCOMPARE(WindowDriver::text(window.item(QStringLiteral("downloadLinkField"))), link);
        window.saveScreenshot(QStringLiteral("app-6-downloading"));

        // It ends as a model row with the file's size, and the progress row goes.
        QVERIFY(window.waitFor(
            [&] {
                return shownTexts(window, QStringLiteral("modelName"))
                    == QStringList{QStringLiteral("tiny-stories.gguf")};
            },
            60000));
        QVERIFY(window.waitFor([&] { return window.visibleItems(QStringLiteral("downloadRow")).isEmpty(); }, 10000));
        QCOMPARE(shownTexts(window, QStringLiteral("modelSize")), QStringList{byteCountText(contents.size())});
        QFile downloaded(QDir(home.modelsFolder()).filePath(QStringLiteral("tiny-stories.gguf")));
        QVERIFY(downloaded.open(QIODevice::ReadOnly));
        QVERIFY(downloaded.readAll() == contents);
        window.saveScreenshot(QStringLiteral("app-7-downloaded"));
        store.shutdown();
    }
};

int main(int argc, char *argv[])
{
    ViewHarness::prepareProcess();
    QApplication application(argc, argv);
    AppEndToEndTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "AppEndToEndTest.moc"
