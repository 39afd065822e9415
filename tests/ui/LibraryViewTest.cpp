// The model library sheet.
#include "PlatformText.h"
#include "ScriptedFileChooser.h"
#include "ViewHarness.h"

#include <QApplication>
#include <QSettings>
#include <QtTest>

class LibraryViewTest : public QObject {
    Q_OBJECT

private:
    // Opens the library sheet; true once it shows.
    static bool open(ViewHarness &view)
    {
        view.store().setShowLibrary(true);
        return view.waitFor([&] { return view.item("libraryView") && ViewHarness::shown(view.item("libraryView")); });
    }

    static QStringList names(ViewHarness &view, const QString &rowName, const QString &labelName)
    {
        QStringList found;
        for (QQuickItem *row : view.visibleItems(rowName)) {
            QList<QQuickItem *> labels;
            for (QQuickItem *label : row->findChildren<QQuickItem *>(labelName))
                labels.append(label);
            found.append(labels.isEmpty() ? QString() : ViewHarness::text(labels.first()));
        }
        return found;
    }

    static QQuickItem *child(QQuickItem *row, const QString &name)
    {
        return row ? row->findChild<QQuickItem *>(name) : nullptr;
    }

    static QByteArray threeModels()
    {
        return "[" + ViewHarness::modelJson("alpha.gguf", 4'200'000'000) + ","
            + ViewHarness::modelJson("vision.gguf", 1'500'000) + ","
            + ViewHarness::modelJson("vision-mmproj.gguf", 600'000, true) + "]";
    }

private slots:
    void init() { ViewHarness::resetSettings(); }

    void withoutEngineStatusOnlyTheNoteShows()
    {
        ViewHarness view(QByteArray{});
        QVERIFY(open(view));
        QVERIFY(ViewHarness::shown(view.item("emptyLibraryNote")));
        QCOMPARE(ViewHarness::text(view.item("emptyLibraryNote")),
                 QStringLiteral("Add a GGUF model you already have, or paste its Hugging Face download link below."));
        QVERIFY(view.visibleItems("modelRow").isEmpty());
        QVERIFY(view.visibleItems("downloadRow").isEmpty());
        // Not ready yet: Download stays off even with a link.
        view.typeInto(view.item("downloadLinkField"), QStringLiteral("https://huggingface.co/a/b/resolve/main/c.gguf"));
        QVERIFY(!view.item("downloadButton")->isEnabled());
        QVERIFY(view.item("settingsRow")->isEnabled());
    }

    void emptyModelsWithADownloadShowTheNoteThenTheDownload()
    {
        ViewHarness view(
            FakeEngine::stateJson({}, false, "[]", "[" + ViewHarness::downloadJson("big.gguf", 500, 1000) + "]"));
        QVERIFY(view.refresh());
        QVERIFY(open(view));
        QQuickItem *note = view.item("emptyLibraryNote");
        QVERIFY(ViewHarness::shown(note));
        const QList<QQuickItem *> downloads = view.visibleItems("downloadRow");
        QCOMPARE(downloads.size(), 1);
        QVERIFY(downloads.first()->mapToScene({0, 0}).y() > note->mapToScene({0, 0}).y());
        QCOMPARE(ViewHarness::text(child(downloads.first(), "downloadName")), QStringLiteral("big.gguf"));
        QCOMPARE(child(downloads.first(), "downloadProgress")->property("value").toDouble(), 0.5);
        QCOMPARE(ViewHarness::text(child(downloads.first(), "downloadReceived")),
                 QStringLiteral("500 bytes downloaded"));
    }

    void aDownloadWithNoTotalShowsAnEmptyBar()
    {
        ViewHarness view(FakeEngine::stateJson({}, false, "[" + ViewHarness::modelJson("a.gguf", 10) + "]",
                                               "[" + ViewHarness::downloadJson("next.gguf", 300, 0) + "]"));
        QVERIFY(view.refresh());
        QVERIFY(open(view));
        QVERIFY(!ViewHarness::shown(view.item("emptyLibraryNote")));
        const QList<QQuickItem *> downloads = view.visibleItems("downloadRow");
        QCOMPARE(downloads.size(), 1);
        QCOMPARE(child(downloads.first(), "downloadProgress")->property("value").toDouble(), 0.0);
        // Download rows come after the model rows.
        QVERIFY(downloads.first()->mapToScene({0, 0}).y()
                > view.visibleItems("modelRow").first()->mapToScene({0, 0}).y());
    }

    void rowsFollowTheEngineOrderAndNameLoadedAsUnload()
    {
        ViewHarness view(FakeEngine::stateJson("alpha.gguf", false, threeModels()));
        view.fake().route("POST", "/api/unload", FakeResponse::json(200, "{}"));
        QVERIFY(view.refresh());
        QVERIFY(open(view));
        QCOMPARE(names(view, "modelRow", "modelName"),
                 (QStringList{"alpha.gguf", "vision.gguf", "vision-mmproj.gguf"}));
        const QList<QQuickItem *> rows = view.visibleItems("modelRow");
        QCOMPARE(ViewHarness::text(child(rows.at(0), "modelActionButton")), QStringLiteral("Unload"));
        QCOMPARE(ViewHarness::text(child(rows.at(1), "modelActionButton")), QStringLiteral("Load"));
        QCOMPARE(ViewHarness::text(child(rows.at(0), "modelSize")), QStringLiteral("4.2 GB"));

        view.setEngineState(FakeEngine::stateJson({}, false, threeModels()));
        view.click(child(rows.at(0), "modelActionButton"));
        QVERIFY(view.waitFor([&] { return view.fake().countOf("/api/unload") == 1; }));
        QVERIFY(view.waitFor([&] {
            const auto current = view.visibleItems("modelRow");
            return !current.isEmpty()
                && ViewHarness::text(child(current.first(), "modelActionButton")) == QStringLiteral("Load");
        }));
    }

    void loadButtonAsksForThatModel()
    {
        ViewHarness view(FakeEngine::stateJson({}, false, threeModels()));
        view.fake().route("POST", "/api/load", FakeResponse::json(200, "{}"));
        QVERIFY(view.refresh());
        QVERIFY(open(view));
        view.click(child(view.visibleItems("modelRow").at(1), "modelActionButton"));
        QVERIFY(view.waitFor([&] { return view.fake().countOf("/api/load") == 1; }));
        QCOMPARE(view.fake().requestsTo("/api/load").first().json().value("name").toString(),
                 QStringLiteral("vision.gguf"));
    }

    void aProjectorHasItsIconItsNoteAndNoButton()
    {
        ViewHarness view(FakeEngine::stateJson({}, false, threeModels()));
        QVERIFY(view.refresh());
        QVERIFY(open(view));
        QQuickItem *projector = view.visibleItems("modelRow").at(2);
        QCOMPARE(child(projector, "modelIcon")->property("symbol").toString(), QStringLiteral("photo.stack"));
        QCOMPARE(child(view.visibleItems("modelRow").at(0), "modelIcon")->property("symbol").toString(),
                 QStringLiteral("cube"));
        QCOMPARE(ViewHarness::text(child(projector, "modelSize")), QStringLiteral("600 KB \u00b7 image projector"));
        QVERIFY(!ViewHarness::shown(child(projector, "modelActionButton")));
    }

    void sizeZeroDisablesLoadButANegativeSizeDoesNot()
    {
        ViewHarness view(FakeEngine::stateJson({}, false,
                                               "[" + ViewHarness::modelJson("gone.gguf", 0) + ","
                                                   + ViewHarness::modelJson("odd.gguf", -1) + "]"));
        QVERIFY(view.refresh());
        QVERIFY(open(view));
        const QList<QQuickItem *> rows = view.visibleItems("modelRow");
        QCOMPARE(ViewHarness::text(child(rows.at(0), "modelSize")), QStringLiteral("Source file missing"));
        QCOMPARE(ViewHarness::text(child(rows.at(1), "modelSize")), QStringLiteral("Source file missing"));
        QCOMPARE(ViewHarness::text(child(rows.at(0), "modelActionButton")), QStringLiteral("Load"));
        QVERIFY(!child(rows.at(0), "modelActionButton")->isEnabled());
        QVERIFY(child(rows.at(1), "modelActionButton")->isEnabled());
    }

    void generatingDisablesRowsAndSettingsButNotDownloadOrImport()
    {
        ViewHarness view(FakeEngine::stateJson("alpha.gguf", false, threeModels()));
        QVERIFY(view.refresh());
        QVERIFY(view.startEndlessReply());
        QVERIFY(open(view));
        view.typeInto(view.item("downloadLinkField"), QStringLiteral("x"));
        for (QQuickItem *row : view.visibleItems("modelRow"))
            QVERIFY(!row->isEnabled());
        QVERIFY(!view.item("settingsRow")->isEnabled());
        QVERIFY(view.item("downloadButton")->isEnabled());
        QVERIFY(view.item("addModelsButton")->isEnabled());
        QVERIFY(view.item("revealModelsButton")->isEnabled());
        QVERIFY(view.item("doneButton")->isEnabled());
        view.store().stop();
        QVERIFY(view.waitFor([&] { return !view.store().generating(); }));
    }

    void loadingDisablesRowsButNotSettings()
    {
        ViewHarness view(FakeEngine::stateJson({}, false, threeModels()));
        QVERIFY(view.refresh());
        QVERIFY(open(view));
        view.store().library().setLoading(true);
        view.settle();
        for (QQuickItem *row : view.visibleItems("modelRow"))
            QVERIFY(!row->isEnabled());
        QVERIFY(view.item("settingsRow")->isEnabled());
        view.store().library().setLoading(false);
        view.settle();
        QVERIFY(view.visibleItems("modelRow").first()->isEnabled());
    }

    // The sheet's sections are 20 apart, and Done sits level with the title block.
    void theSheetKeepsItsSpacing()
    {
        ViewHarness view;
        QVERIFY(open(view));
        const QRectF title = ViewHarness::sceneRect(view.item("libraryTitleBlock"));
        const QRectF done = ViewHarness::sceneRect(view.item("doneButton"));
        QVERIFY2(qAbs(done.center().y() - title.center().y()) <= 0.5,
                 qPrintable(QStringLiteral("%1 against %2").arg(done.center().y()).arg(title.center().y())));
        const QRectF divider = ViewHarness::sceneRect(view.item("libraryDivider"));
        const QRectF heading = ViewHarness::sceneRect(view.item("downloadHeading"));
        const QRectF field = ViewHarness::sceneRect(view.item("downloadLinkField"));
        QCOMPARE(heading.top() - divider.bottom(), 20.0);
        QCOMPARE(field.top() - heading.bottom(), 20.0);
    }

    // The reply-limit picker is drawn rounded, as the buttons and fields beside it.
    void theReplyLimitPickerIsRounded()
    {
        ViewHarness view;
        QVERIFY(open(view));
        auto *picker = view.item("replyLimitPicker");
        auto *background = picker->property("background").value<QQuickItem *>();
        auto *doneBackground = view.item("doneButton")->property("background").value<QQuickItem *>();
        QVERIFY(background && doneBackground);
        QVERIFY(doneBackground->property("radius").toDouble() > 0);
        QCOMPARE(background->property("radius").toDouble(), doneBackground->property("radius").toDouble());
        QCOMPARE(background->property("border.color").value<QColor>(),
                 doneBackground->property("border.color").value<QColor>());
        QCOMPARE(picker->height(), view.item("doneButton")->height());
    }

    // Disabled rows and the disabled settings row dim every label they hold.
    void disabledRowsDimTheirLabels()
    {
        ViewHarness view(FakeEngine::stateJson("alpha.gguf", false, threeModels()));
        QVERIFY(view.refresh());
        QVERIFY(open(view));
        const QStringList settingsLabels{"temperatureLabel", "temperatureSlider", "temperatureValue", "replyLimitLabel",
                                         "replyLimitPicker"};
        const QStringList rowLabels{"modelIcon", "modelName", "modelSize"};
        for (const QString &name : settingsLabels)
            QCOMPARE(ViewHarness::drawnOpacity(view.item(name)), 1.0);
        for (const QString &name : rowLabels)
            QCOMPARE(ViewHarness::drawnOpacity(child(view.visibleItems("modelRow").first(), name)), 1.0);

        QVERIFY(view.startEndlessReply());
        for (const QString &name : settingsLabels)
            QVERIFY2(ViewHarness::drawnOpacity(view.item(name)) < 0.6, qPrintable(name));
        for (QQuickItem *row : view.visibleItems("modelRow")) {
            for (const QString &name : rowLabels)
                QVERIFY2(ViewHarness::drawnOpacity(child(row, name)) < 0.6, qPrintable(name));
        }
        view.saveScreenshot(QStringLiteral("library-while-replying-light"));
        view.click(view.item("doneButton"));
        view.click(view.item("appearanceDark"));
        QVERIFY(open(view));
        view.saveScreenshot(QStringLiteral("library-while-replying-dark"));
        view.store().stop();
        QVERIFY(view.waitFor([&] { return !view.store().generating(); }));
        for (const QString &name : settingsLabels)
            QCOMPARE(ViewHarness::drawnOpacity(view.item(name)), 1.0);
    }

    void spacesEnableDownloadAndAreRefusedWithoutBeingCleared()
    {
        ViewHarness view;
        QVERIFY(view.refresh());
        QVERIFY(open(view));
        QVERIFY(!view.item("downloadButton")->isEnabled());
        QCOMPARE(view.item("downloadLinkField")->property("placeholderText").toString(),
                 QStringLiteral("https://huggingface.co/\u2026/model.gguf"));
        view.typeInto(view.item("downloadLinkField"), QStringLiteral("   "));
        QVERIFY(view.item("downloadButton")->isEnabled());
        // Return in the field does nothing.
        view.key(Qt::Key_Return);
        QVERIFY(!view.store().error());
        view.click(view.item("downloadButton"));
        QCOMPARE(view.store().error().value_or(QString()),
                 QStringLiteral("Enter an HTTPS Hugging Face download link ending in .gguf."));
        QCOMPARE(view.item("downloadLinkField")->property("text").toString(), QStringLiteral("   "));
        QCOMPARE(view.fake().countOf("/api/pull"), 0);
    }

    void aGoodLinkIsSentAsTypedAndKept()
    {
        ViewHarness view;
        view.fake().route("POST", "/api/pull", FakeResponse::json(200, "{}"));
        QVERIFY(view.refresh());
        QVERIFY(open(view));
        const QString link = QStringLiteral("https://huggingface.co/org/repo/resolve/main/tiny.gguf");
        view.typeInto(view.item("downloadLinkField"), link);
        view.click(view.item("downloadButton"));
        QVERIFY(view.waitFor([&] { return view.fake().countOf("/api/pull") == 1; }));
        QCOMPARE(view.item("downloadLinkField")->property("text").toString(), link);
    }

    void temperatureStartsAt07AndMovesInTenths()
    {
        ViewHarness view;
        QVERIFY(open(view));
        QCOMPARE(ViewHarness::text(view.item("temperatureValue")), QStringLiteral("0.7"));
        QQuickItem *slider = view.item("temperatureSlider");
        QCOMPARE(slider->property("from").toDouble(), 0.0);
        QCOMPARE(slider->property("to").toDouble(), 1.3);
        QCOMPARE(slider->property("stepSize").toDouble(), 0.1);
        slider->forceActiveFocus();
        view.key(Qt::Key_Right);
        QCOMPARE(view.store().temperature(), 0.8);
        QCOMPARE(ViewHarness::text(view.item("temperatureValue")), QStringLiteral("0.8"));
        for (int step = 0; step < 10; ++step)
            view.key(Qt::Key_Right);
        QCOMPARE(view.store().temperature(), 1.3);
        QCOMPARE(ViewHarness::text(view.item("temperatureValue")), QStringLiteral("1.3"));
        for (int step = 0; step < 20; ++step)
            view.key(Qt::Key_Left);
        QCOMPARE(view.store().temperature(), 0.0);
        QCOMPARE(ViewHarness::text(view.item("temperatureValue")), QStringLiteral("0.0"));
    }

    void replyLimitOffersFourChoices()
    {
        ViewHarness view;
        QVERIFY(open(view));
        QQuickItem *picker = view.item("replyLimitPicker");
        QCOMPARE(picker->property("count").toInt(), 4);
        QCOMPARE(picker->property("displayText").toString(), QStringLiteral("512"));
        const QVariantList choices = picker->property("model").toList();
        QCOMPARE(choices, (QVariantList{256, 512, 1024, 2048}));
        QVERIFY(QMetaObject::invokeMethod(picker, "activated", Q_ARG(int, 2)));
        view.settle();
        QCOMPARE(view.store().tokenLimit(), 1024);
        view.store().setTokenLimit(256);
        view.settle();
        QCOMPARE(picker->property("displayText").toString(), QStringLiteral("256"));
    }

    void platformTextsAndTheRealDataFolder()
    {
        ViewHarness view;
        QVERIFY(open(view));
        QCOMPARE(ViewHarness::text(view.item("libraryTagline")),
                 PlatformText::expected(QStringLiteral("Your models stay on this Mac."),
                                        QStringLiteral("Your models stay on this computer.")));
        QCOMPARE(view.item("revealModelsButton")->property("text").toString(),
                 PlatformText::expected(QStringLiteral("Show in Finder"), QStringLiteral("Show in File Manager"),
                                        QStringLiteral("Show in Explorer")));
        // The test home keeps the data in ~/.local/share (XDG_DATA_HOME), shown with ~.
        QCOMPARE(ViewHarness::text(view.item("libraryFootnote")),
                 QStringLiteral("Use a compatible GGUF model. For images, add its matching projector too. "
                                "Chat history is stored locally in ")
                     + PlatformText::expected(QStringLiteral("Application Support/Vorn."),
                                              QStringLiteral("~/.local/share/Vorn.")));
    }

    void importButtonAsksForFiles()
    {
        ViewHarness view;
        auto chooser = std::make_shared<ScriptedFileChooser>();
        view.store().setFileChooser(chooser);
        QVERIFY(open(view));
        view.click(view.item("addModelsButton"));
        QCOMPARE(chooser->openRequests.size(), 1);
        QCOMPARE(chooser->openRequests.first().kind, FileChooser::Kind::Models);
    }

    void doneAndCtrlEscapeCloseButPlainEscapeDoesNot()
    {
        ViewHarness view;
        QVERIFY(open(view));
        view.key(Qt::Key_Escape);
        QVERIFY(view.store().showLibrary());
        view.click(view.item("doneButton"));
        QVERIFY(!view.store().showLibrary());
        QVERIFY(view.waitFor([&] { return !view.object("librarySheet")->property("visible").toBool(); }));

        QVERIFY(open(view));
        view.key(Qt::Key_Escape, Qt::ControlModifier);
        QVERIFY(!view.store().showLibrary());
    }

    void aNewSheetStartsWithAnEmptyLinkField()
    {
        ViewHarness view;
        QVERIFY(open(view));
        view.typeInto(view.item("downloadLinkField"), QStringLiteral("left over"));
        view.click(view.item("doneButton"));
        QVERIFY(view.waitFor([&] { return !view.object("librarySheet")->property("visible").toBool(); }));
        QVERIFY(open(view));
        QCOMPARE(view.item("downloadLinkField")->property("text").toString(), QString());
    }

    void openedFromWelcomeHeaderAndSidebar()
    {
        ViewHarness view;
        for (const char *opener : {"openLibraryButton", "headerLibraryButton", "sidebarLibraryButton"}) {
            view.click(view.item(QLatin1String(opener)));
            QVERIFY2(view.store().showLibrary(), opener);
            QVERIFY(view.waitFor([&] { return view.object("librarySheet")->property("visible").toBool(); }));
            view.click(view.item("doneButton"));
            QVERIFY(view.waitFor([&] { return !view.object("librarySheet")->property("visible").toBool(); }));
        }
    }

    void sheetFollowsTheAppearanceSetting()
    {
        const QColor dark = QColor::fromRgbF(0.07f, 0.09f, 0.12f);
        for (const QVariant &stored : {QVariant(), QVariant("light"), QVariant("sepia"), QVariant("dark")}) {
            ViewHarness::resetSettings();
            if (stored.isValid())
                QSettings().setValue("appearance", stored);
            ViewHarness view;
            QVERIFY(open(view));
            QObject *sheet = view.object("librarySheet");
            auto *background = sheet->property("background").value<QQuickItem *>();
            QVERIFY(background);
            const bool isDark = background->property("color").value<QColor>() == dark;
            QCOMPARE(isDark, stored.toString() == QStringLiteral("dark"));
        }
    }

    void screenshots()
    {
        const QByteArray models = threeModels();
        const QByteArray downloads = "["
            + ViewHarness::downloadJson("qwen2.5-1.5b-instruct-q4_k_m.gguf", 412'000'000, 1'120'000'000) + "]";
        ViewHarness view(FakeEngine::stateJson("alpha.gguf", false, models, downloads));
        QVERIFY(view.refresh());
        QVERIFY(open(view));
        view.saveScreenshot(QStringLiteral("library-light"));
        view.click(view.item("doneButton"));
        view.settle();
        QSettings().setValue("appearance", "dark");
        ViewHarness darkView(FakeEngine::stateJson("alpha.gguf", false, models, downloads));
        QVERIFY(darkView.refresh());
        open(darkView);
        darkView.saveScreenshot(QStringLiteral("library-dark"));
    }

    void scrollIndicatorOnlyWhenTheListOverflows()
    {
        const auto indicator = [](ViewHarness &view) -> QQuickItem * {
            QList<QQuickItem *> pending{view.item("modelScroll")};
            while (!pending.isEmpty()) {
                QQuickItem *item = pending.takeFirst();
                if (item->inherits("QQuickScrollBar") && item->property("orientation").toInt() == Qt::Vertical)
                    return item;
                pending.append(item->childItems());
            }
            return nullptr;
        };
        ViewHarness few(FakeEngine::stateJson(QString(), false, threeModels()));
        QVERIFY(few.refresh());
        open(few);
        QVERIFY(indicator(few));
        QVERIFY(!ViewHarness::shown(indicator(few)));

        QByteArray many = "[";
        for (int index = 0; index < 12; ++index)
            many += (index ? "," : "") + ViewHarness::modelJson(QStringLiteral("model-%1.gguf").arg(index), 1'000'000);
        many += "]";
        ViewHarness full(FakeEngine::stateJson(QString(), false, many));
        QVERIFY(full.refresh());
        open(full);
        QVERIFY(full.item("modelScroll")->height() <= 310);
        QVERIFY(ViewHarness::shown(indicator(full)));
    }

    // At the window's smallest size a long list scrolls inside the sheet, and the rest
    // of the sheet stays in the window.
    void theWholeSheetFitsTheSmallestWindow()
    {
        QByteArray many = "[";
        for (int index = 0; index < 24; ++index)
            many += (index ? "," : "") + ViewHarness::modelJson(QStringLiteral("model-%1.gguf").arg(index), 1'000'000);
        many += "]";
        const QByteArray downloads = "[" + ViewHarness::downloadJson("next.gguf", 300, 1000) + "]";
        for (const char *appearance : {"light", "dark"}) {
            ViewHarness::resetSettings();
            QSettings().setValue("appearance", appearance);
            ViewHarness view(FakeEngine::stateJson(QString(), false, many, downloads));
            view.window()->resize(920, 660);
            QVERIFY(view.waitFor([&] { return view.window()->height() == 660; }));
            QVERIFY(view.refresh());
            QVERIFY(open(view));

            const qreal windowHeight = view.window()->contentItem()->height();
            QQuickItem *sheet = view.object("librarySheet")->property("contentItem").value<QQuickItem *>();
            QVERIFY(sheet);
            const qreal sheetTop = sheet->mapToScene({0, 0}).y();
            QVERIFY2(sheetTop >= 20, qPrintable(QString::number(sheetTop)));
            for (const char *name :
                 {"doneButton", "settingsRow", "replyLimitPicker", "libraryFootnote", "downloadButton"}) {
                QQuickItem *item = view.item(QLatin1String(name));
                QVERIFY2(ViewHarness::shown(item), name);
                const qreal bottom = item->mapToScene({0, item->height()}).y();
                QVERIFY2(bottom <= windowHeight - 20,
                         qPrintable(QStringLiteral("%1 ends at %2").arg(QLatin1String(name)).arg(bottom)));
            }
            // The footnote stays inside the sheet with its margin below.
            QQuickItem *footnote = view.item("libraryFootnote");
            QVERIFY(footnote->mapToScene({0, footnote->height()}).y() <= sheetTop + sheet->height() - 28 + 0.5);

            // The list gave way, within its bounds, and scrolls to its last rows.
            QQuickItem *list = view.item("modelScroll");
            QVERIFY2(list->height() >= 190 && list->height() <= 310, qPrintable(QString::number(list->height())));
            auto *flickable = list->property("contentItem").value<QQuickItem *>();
            QVERIFY(flickable);
            QVERIFY(flickable->property("contentHeight").toDouble() > list->height());
            view.saveScreenshot(QStringLiteral("library-smallest-window-") + QLatin1String(appearance));
        }
    }

    void emptyLibraryScreenshots()
    {
        for (const char *appearance : {"light", "dark"}) {
            ViewHarness::resetSettings();
            QSettings().setValue("appearance", appearance);
            ViewHarness view(FakeEngine::stateJson(QString(), false, "[]", "[]"));
            QVERIFY(view.refresh());
            QVERIFY(open(view));
            QVERIFY(ViewHarness::shown(view.item("emptyLibraryNote")));
            QVERIFY(view.visibleItems("modelRow").isEmpty());
            view.saveScreenshot(QStringLiteral("library-empty-") + QLatin1String(appearance));
        }
    }
};

int main(int argc, char *argv[])
{
    ViewHarness::prepareProcess();
    QApplication application(argc, argv);
    LibraryViewTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "LibraryViewTest.moc"
