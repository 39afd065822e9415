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

    // Every item of that name at or below root, popups' contents included.
    static QList<QQuickItem *> itemsBelow(QQuickItem *root, const QString &name)
    {
        QList<QQuickItem *> found;
        QList<QQuickItem *> pending{root};
        while (!pending.isEmpty()) {
            QQuickItem *item = pending.takeFirst();
            if (item->objectName() == name)
                found.append(item);
            pending.append(item->childItems());
        }
        return found;
    }

    // Models with what their headers tell, as a recent engine lists them.
    static QByteArray detailedModels()
    {
        return "["
            + FakeEngine::modelJson("tinyllama-1.1b-chat-v1.0.Q4_0.gguf", 637'000'000,
                                    {"llama", 131072, 1'100'048'384, "Q4_0", 22528})
            + ","
            + FakeEngine::modelJson("qwen2.5-7b-instruct-q4_k_m.gguf", 4'680'000'000,
                                    {"qwen2", 32768, 7'615'616'512, "Q4_K_M", 57344})
            + "," + FakeEngine::modelJson("mmproj-gemma3.gguf", 851'000'000, {"clip", 0, 419'000'000, "F16", 0}, true)
            + "," + ViewHarness::modelJson("older.gguf", 1'200'000) + "]";
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

    void theContextPickerSitsBesideTheReplyLimitAndClosesWhatTheModelWasNotTrainedFor()
    {
        const QByteArray models = "[" + FakeEngine::modelJson("m.gguf", 10, {"llama", 8192, 0, {}, 0}) + "]";
        ViewHarness view(FakeEngine::stateJson("m.gguf", false, models));
        view.fake().route("POST", "/api/load", FakeResponse::json(200, "{}"));
        QVERIFY(view.refresh());
        QVERIFY(open(view));
        QQuickItem *picker = view.item("contextPicker");
        QVERIFY(ViewHarness::shown(picker));
        QCOMPARE(ViewHarness::text(view.item("contextLabel")), QStringLiteral("Context"));
        QCOMPARE(picker->property("count").toInt(), 8);
        QCOMPARE(picker->property("displayText").toString(), QStringLiteral("4096"));
        const QRectF pickerRect = ViewHarness::sceneRect(picker);
        const QRectF limitLabel = ViewHarness::sceneRect(view.item("replyLimitLabel"));
        QVERIFY(pickerRect.right() < limitLabel.left());
        QCOMPARE(pickerRect.center().y(), ViewHarness::sceneRect(view.item("replyLimitPicker")).center().y());

        auto *popup = picker->property("popup").value<QObject *>();
        QVERIFY(popup);
        QVERIFY(QMetaObject::invokeMethod(popup, "open"));
        QList<QQuickItem *> choices;
        QVERIFY(view.waitFor([&] {
            auto *list = popup->property("contentItem").value<QQuickItem *>();
            choices = list ? itemsBelow(list, "contextChoice") : QList<QQuickItem *>();
            return choices.size() == 8;
        }));
        std::sort(choices.begin(), choices.end(), [](QQuickItem *a, QQuickItem *b) {
            return a->property("index").toInt() < b->property("index").toInt();
        });
        QStringList labels;
        QList<bool> enabled;
        for (QQuickItem *choice : choices) {
            labels.append(choice->property("text").toString());
            enabled.append(choice->isEnabled());
        }
        QCOMPARE(labels, (QStringList{"2048", "4096", "8192", "16384", "32768", "65536", "131072", "Model maximum"}));
        QCOMPARE(enabled, (QList<bool>{true, true, true, false, false, false, false, true}));
        QVERIFY(QMetaObject::invokeMethod(popup, "close"));

        // A choice reloads the loaded model with it.
        QVERIFY(QMetaObject::invokeMethod(picker, "activated", Q_ARG(int, 2)));
        QVERIFY(view.waitFor([&] { return view.fake().countOf("/api/load") == 1 && !view.store().loading(); }));
        QCOMPARE(view.fake().requestsTo("/api/load").first().json(),
                 (QJsonObject{{"name", "m.gguf"}, {"gpu", true}, {"ctx", 8192}}));
        view.settle();
        QCOMPARE(picker->property("displayText").toString(), QStringLiteral("8192"));

        // A closed choice reached by the keyboard is refused, and the picker shows the
        // choice that holds.
        picker->forceActiveFocus();
        view.key(Qt::Key_Down);
        view.settle();
        QCOMPARE(view.store().contextChoice(), 8192);
        QCOMPARE(picker->property("displayText").toString(), QStringLiteral("8192"));
        QCOMPARE(view.fake().countOf("/api/load"), 1);

        // While a model loads, the context waits.
        view.store().library().setLoading(true);
        view.settle();
        QVERIFY(!picker->isEnabled());
        QVERIFY(view.item("replyLimitPicker")->isEnabled());
        view.store().library().setLoading(false);
        view.settle();
        QVERIFY(picker->isEnabled());
    }

    void modelRowsShowTheirDetailsAndTheirKvCache()
    {
        ViewHarness view(FakeEngine::stateJson({}, false, detailedModels()));
        QVERIFY(view.refresh());
        QVERIFY(open(view));
        QCOMPARE(names(view, "modelRow", "modelDetails"),
                 (QStringList{QStringLiteral("llama \u00b7 1.1B \u00b7 Q4_0 \u00b7 128K context"),
                              QStringLiteral("qwen2 \u00b7 7.6B \u00b7 Q4_K_M \u00b7 32K context"),
                              QStringLiteral("clip \u00b7 419M \u00b7 F16"), QString()}));
        QCOMPARE(names(view, "modelRow", "modelSize"),
                 (QStringList{QStringLiteral("637 MB"), QStringLiteral("4.68 GB"),
                              QStringLiteral("851 MB \u00b7 image projector"), QStringLiteral("1.2 MB")}));
        QCOMPARE(names(view, "modelRow", "modelKvCache"),
                 (QStringList{QStringLiteral(" \u00b7 KV cache for 4K context: 92.3 MB"),
                              QStringLiteral(" \u00b7 KV cache for 4K context: 234.9 MB"), QStringLiteral(" \u00b7 "),
                              QStringLiteral(" \u00b7 ")}));
        // A model whose header told nothing shows no details and no KV cache; a
        // projector has no KV cache of its own.
        const QList<QQuickItem *> rows = view.visibleItems("modelRow");
        QVERIFY(!ViewHarness::shown(child(rows.at(3), "modelDetails")));
        QVERIFY(!ViewHarness::shown(child(rows.at(3), "modelKvCache")));
        QVERIFY(!ViewHarness::shown(child(rows.at(2), "modelKvCache")));
        QVERIFY(ViewHarness::shown(child(rows.at(0), "modelDetails")));
        QVERIFY(ViewHarness::shown(child(rows.at(0), "modelKvCache")));
        // Size and KV cache share a line.
        QCOMPARE(ViewHarness::sceneRect(child(rows.at(0), "modelKvCache")).top(),
                 ViewHarness::sceneRect(child(rows.at(0), "modelSize")).top());

        // Each model's own maximum, for "Model maximum".
        view.store().setContextChoice(0);
        view.settle();
        QCOMPARE(names(view, "modelRow", "modelKvCache").mid(0, 2),
                 (QStringList{QStringLiteral(" \u00b7 KV cache for 128K context: 2.95 GB"),
                              QStringLiteral(" \u00b7 KV cache for 32K context: 1.88 GB")}));
    }

    void modelDetailsScreenshots()
    {
        const QByteArray downloads = "["
            + ViewHarness::downloadJson("qwen2.5-1.5b-instruct-q4_k_m.gguf", 412'000'000, 1'120'000'000) + "]";
        for (const char *appearance : {"light", "dark"}) {
            ViewHarness::resetSettings();
            QSettings().setValue("appearance", appearance);
            ViewHarness view(
                FakeEngine::stateJson("tinyllama-1.1b-chat-v1.0.Q4_0.gguf", false, detailedModels(), downloads));
            view.fake().route("POST", "/api/load", FakeResponse::json(200, "{}"));
            QVERIFY(view.refresh());
            QVERIFY(open(view));
            view.store().setContextChoice(8192);
            QVERIFY(view.waitFor([&] { return view.fake().countOf("/api/load") == 1 && !view.store().loading(); }));
            view.settle();
            QCOMPARE(view.item("contextPicker")->property("displayText").toString(), QStringLiteral("8192"));
            view.saveScreenshot(QStringLiteral("library-model-details-") + QLatin1String(appearance));
        }
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
            for (const char *name : {"doneButton", "settingsRow", "contextPicker", "replyLimitPicker",
                                     "libraryFootnote", "downloadButton"}) {
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
