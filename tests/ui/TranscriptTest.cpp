// The transcript, the composer and the footer.
#include "MessageImage.h"
#include "PlatformText.h"
#include "ViewHarness.h"
#include "chat/MessageListModel.h"

#include <QApplication>
#include <QBuffer>
#include <QClipboard>
#include <QSettings>
#include <QtTest>

class TranscriptTest : public QObject {
    Q_OBJECT

private:
    static QString pngDataURL(int width, int height)
    {
        QImage image(width, height, QImage::Format_ARGB32);
        image.fill(QColor(40, 140, 120));
        QByteArray bytes;
        QBuffer buffer(&bytes);
        buffer.open(QIODevice::WriteOnly);
        image.save(&buffer, "PNG");
        return QStringLiteral("data:image/png;base64,") + QString::fromLatin1(bytes.toBase64());
    }

    static bool sendEnabled(ViewHarness &view) { return view.item("sendButton")->isEnabled(); }

    static QQuickItem *messageView(ViewHarness &view) { return view.item("messageView"); }

    static bool atEnd(ViewHarness &view) { return messageView(view)->property("atYEnd").toBool(); }

    static QList<QByteArray> reply(const QStringList &pieces)
    {
        QList<QByteArray> lines;
        for (const QString &piece : pieces)
            lines.append(ViewHarness::delta(piece));
        lines.append("data: [DONE]\n\n");
        return lines;
    }

private slots:
    void init() { ViewHarness::resetSettings(); }

    void welcomeWithoutAModelOffersTheLibrary()
    {
        ViewHarness view;
        QVERIFY(view.refresh());
        QVERIFY(ViewHarness::shown(view.item("welcomePanel")));
        QCOMPARE(ViewHarness::text(view.item("welcomeTitle")), QStringLiteral("Intelligence, right here."));
        QCOMPARE(ViewHarness::text(view.item("welcomeText")),
                 PlatformText::expected(
                     QStringLiteral("Bring a model to your Mac.\nKeep your work on your Mac."),
                     QStringLiteral("Bring a model to your computer.\nKeep your work on your computer.")));
        QVERIFY(ViewHarness::shown(view.item("openLibraryButton")));
        view.click(view.item("openLibraryButton"));
        QVERIFY(view.store().showLibrary());
    }

    void welcomeWithAModelInvitesAQuestion()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"));
        QVERIFY(view.refresh());
        QCOMPARE(ViewHarness::text(view.item("welcomeText")),
                 QStringLiteral("Ask a question, inspect an image,\nor work through an idea."));
        QVERIFY(!ViewHarness::shown(view.item("openLibraryButton")));
    }

    void sendButtonFollowsItsRules()
    {
        ViewHarness view;
        QVERIFY(view.refresh());
        view.store().setPrompt(QStringLiteral("Hi"));
        view.settle();
        QVERIFY(!sendEnabled(view)); // no model

        view.setEngineState(FakeEngine::stateJson("m.gguf"));
        QVERIFY(view.refresh());
        QVERIFY(sendEnabled(view));
        view.store().library().setLoading(true);
        view.settle();
        QVERIFY(!sendEnabled(view));
        view.store().library().setLoading(false);
        view.store().setPrompt(QString());
        view.settle();
        QVERIFY(!sendEnabled(view));
        QCOMPARE(view.item("sendButton")->property("help").toString(),
                 PlatformText::expected(QStringLiteral("Send \u00b7 \u2318 Return"),
                                        QStringLiteral("Send \u00b7 Ctrl+Return")));
        QCOMPARE(view.item("sendSymbol")->property("name").toString(), QStringLiteral("arrow.up"));
    }

    void onlySpacesEnableSend()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"));
        QVERIFY(view.refresh());
        view.typeInto(view.item("promptField"), QStringLiteral("   "));
        QCOMPARE(view.store().prompt(), QStringLiteral("   "));
        QVERIFY(sendEnabled(view));
    }

    void anImageForATextModelWarnsAndBlocksSend()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf", false));
        QVERIFY(view.refresh());
        QVERIFY(!ViewHarness::shown(view.item("attachmentChip")));
        view.store().setPrompt(QStringLiteral("What is this?"));
        view.store().setAttachment(pngDataURL(4, 4));
        view.settle();
        QVERIFY(ViewHarness::shown(view.item("attachmentChip")));
        QVERIFY(ViewHarness::shown(view.item("visionWarning")));
        QCOMPARE(ViewHarness::text(view.item("visionWarning")), QStringLiteral("Load a vision model to read it"));
        QVERIFY(!sendEnabled(view));
        view.saveScreenshot(QStringLiteral("attachment-warning"));

        view.click(view.item("removeAttachmentButton"));
        QVERIFY(!view.store().attachment());
        QVERIFY(!ViewHarness::shown(view.item("attachmentChip")));
        QVERIFY(sendEnabled(view));
    }

    void anImageForAVisionModelCanBeSentWithoutText()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf", true));
        QVERIFY(view.refresh());
        view.store().setAttachment(pngDataURL(4, 4));
        view.settle();
        QVERIFY(!ViewHarness::shown(view.item("visionWarning")));
        QVERIFY(sendEnabled(view));
    }

    void returnSendsAndShiftReturnAddsALine()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"));
        view.fake().route("POST", "/v1/chat/completions", FakeResponse::stream(reply({"Hello", " there."})));
        QVERIFY(view.refresh());
        QQuickItem *prompt = view.item("promptField");
        view.typeInto(prompt, QStringLiteral("first"));
        view.key(Qt::Key_Return, Qt::ShiftModifier);
        view.typeInto(prompt, QStringLiteral("second"));
        QCOMPARE(view.store().prompt(), QStringLiteral("first\nsecond"));
        view.key(Qt::Key_Return);
        QVERIFY(view.waitFor([&] { return !view.store().generating() && view.store().messageList()->count() == 2; }));
        QCOMPARE(view.store().messages().first().text, QStringLiteral("first\nsecond"));
        QCOMPARE(view.store().messages().last().text, QStringLiteral("Hello there."));
        QCOMPARE(prompt->property("text").toString(), QString());

        const QList<QQuickItem *> captions = view.visibleItems("messageCaption");
        QCOMPARE(captions.size(), 2);
        QCOMPARE(ViewHarness::text(captions.at(0)), QStringLiteral("YOU"));
        QCOMPARE(ViewHarness::text(captions.at(1)), QStringLiteral("VORN"));
        // The transcript catches up with streamed text at its next frame.
        const QList<QQuickItem *> texts = view.visibleItems("messageText");
        QCOMPARE(texts.size(), 2);
        QVERIFY(view.waitFor([&] { return ViewHarness::text(texts.at(1)) == QStringLiteral("Hello there."); }));
        QVERIFY(view.item("exportButton")->isEnabled());
    }

    void copyButtonOnlyOnAssistantRepliesWithText()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"),
                         {ViewHarness::conversation("Chat", {"question", "the answer", "again", ""})});
        QVERIFY(view.refresh());
        const QList<QQuickItem *> buttons = view.items("copyButton");
        QCOMPARE(buttons.size(), 4);
        QVERIFY(!ViewHarness::shown(buttons.at(0)));
        QVERIFY(ViewHarness::shown(buttons.at(1)));
        QVERIFY(!ViewHarness::shown(buttons.at(2)));
        QVERIFY(!ViewHarness::shown(buttons.at(3)));
        QCOMPARE(buttons.at(1)->property("help").toString(), QStringLiteral("Copy response"));
        QGuiApplication::clipboard()->setText(QStringLiteral("old"));
        view.click(buttons.at(1));
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("the answer"));
        // An empty reply while not generating is an empty text, not a spinner.
        QVERIFY(!ViewHarness::shown(view.items("replyBusy").at(3)));
        QVERIFY(ViewHarness::shown(view.items("messageText").at(3)));
    }

    void whileGeneratingTheReplyShowsASpinnerAndCtrlReturnStops()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"));
        view.fake().route("POST", "/v1/chat/completions", FakeResponse::silent());
        QVERIFY(view.refresh());
        view.typeInto(view.item("promptField"), QStringLiteral("Tell me"));
        view.click(view.item("sendButton"));
        QVERIFY(view.waitFor([&] { return view.store().generating(); }));
        QVERIFY(sendEnabled(view));
        QCOMPARE(view.item("sendButton")->property("help").toString(), QStringLiteral("Stop"));
        QCOMPARE(view.item("sendSymbol")->property("name").toString(), QStringLiteral("stop.fill"));
        QVERIFY(!view.item("attachButton")->isEnabled());
        QCOMPARE(view.visibleItems("replyBusy").size(), 1);

        // Text typed meanwhile is not sent by Ctrl+Return: it stops the reply.
        view.typeInto(view.item("promptField"), QStringLiteral("next"));
        view.key(Qt::Key_Return, Qt::ControlModifier);
        QVERIFY(view.waitFor([&] { return !view.store().generating(); }));
        QCOMPARE(view.store().messageList()->count(), 2);
        QCOMPARE(view.fake().countOf("/v1/chat/completions"), 1);
        QCOMPARE(view.store().prompt(), QStringLiteral("next"));
        QVERIFY(view.item("attachButton")->isEnabled());
    }

    void ctrlReturnSendsWhenIdle()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"));
        view.fake().route("POST", "/v1/chat/completions", FakeResponse::stream(reply({"ok"})));
        QVERIFY(view.refresh());
        view.typeInto(view.item("promptField"), QStringLiteral("go"));
        view.key(Qt::Key_Return, Qt::ControlModifier);
        QVERIFY(view.waitFor([&] { return view.store().messageList()->count() == 2 && !view.store().generating(); }));
        QCOMPARE(view.store().messages().last().text, QStringLiteral("ok"));
    }

    // The keys follow the same rules as the button: Ctrl+Return is the button's
    // shortcut and does nothing while it is disabled; Return hands the prompt to send().
    void theKeyboardFollowsTheSendRules()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf", false));
        view.fake().route("POST", "/v1/chat/completions",
                          FakeResponse::json(400, R"({"error":"this model cannot see images"})"));
        QVERIFY(view.refresh());
        view.store().setAttachment(pngDataURL(4, 4));
        view.typeInto(view.item("promptField"), QStringLiteral("What is this?"));
        QVERIFY(!sendEnabled(view));
        QVERIFY(!view.store().canSend());

        view.key(Qt::Key_Return, Qt::ControlModifier);
        view.key(Qt::Key_Enter, Qt::ControlModifier);
        // Also from outside the prompt field.
        view.item("searchField")->forceActiveFocus();
        view.key(Qt::Key_Return, Qt::ControlModifier);
        QVERIFY(view.store().messages().isEmpty());
        QCOMPARE(view.store().prompt(), QStringLiteral("What is this?"));
        QVERIFY(view.store().attachment());

        // Return sends whatever send() accepts; the engine's refusal is shown.
        view.item("promptField")->forceActiveFocus();
        view.key(Qt::Key_Return);
        QVERIFY(view.waitFor(
            [&] { return view.fake().countOf("/v1/chat/completions") == 1 && !view.store().generating(); }));
        QCOMPARE(view.store().error().value_or(QString()),
                 QStringLiteral("The model could not answer. Check its image support and available memory."));

        // A prompt of spaces enables the button, and send() then refuses it.
        view.store().clearError();
        view.typeInto(view.item("promptField"), QStringLiteral("  "));
        QVERIFY(sendEnabled(view));
        view.key(Qt::Key_Return, Qt::ControlModifier);
        view.key(Qt::Key_Return);
        QCOMPARE(view.store().messages().size(), 2);
        QCOMPARE(view.store().prompt(), QStringLiteral("  "));
        QCOMPARE(view.fake().countOf("/v1/chat/completions"), 1);
    }

    void aLongStreamKeepsTheEndInViewEvenAfterScrollingUp()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"));
        QStringList pieces;
        for (int line = 0; line < 120; ++line)
            pieces.append(QStringLiteral("Line %1 of a long answer.\n").arg(line));
        FakeResponse slow = FakeResponse::stream(reply(pieces), 25);
        view.fake().route("POST", "/v1/chat/completions", slow);
        QVERIFY(view.refresh());
        view.store().setPrompt(QStringLiteral("Long please"));
        view.store().send();
        QQuickItem *list = messageView(view);
        QVERIFY(view.waitFor([&] { return list->property("contentHeight").toDouble() > list->height() * 1.5; }));
        QVERIFY(view.waitFor([&] { return atEnd(view); }, 2000));

        // Scroll up by hand; the next piece of text brings the end back.
        list->setProperty("contentY", list->property("originY"));
        QVERIFY(!atEnd(view));
        QVERIFY(view.store().generating());
        QVERIFY(view.waitFor([&] { return atEnd(view); }, 2000));

        QVERIFY(view.waitFor([&] { return !view.store().generating(); }, 10000));
        QVERIFY(atEnd(view));
        QCOMPARE(view.store().messages().last().text, pieces.join(QString()));
        QCOMPARE(ViewHarness::text(view.visibleItems("messageText").last()), pieces.join(QString()));
    }

    void firstAppearanceDoesNotScroll()
    {
        QStringList texts;
        for (int index = 0; index < 30; ++index)
            texts.append(QStringLiteral("Message %1\nwith a second line").arg(index));
        ViewHarness view(FakeEngine::stateJson(), {ViewHarness::conversation("Long", texts)});
        QQuickItem *list = messageView(view);
        QCOMPARE(list->property("contentY").toDouble(), list->property("originY").toDouble());
        QVERIFY(!atEnd(view));
    }

    void switchingConversationsScrollsToTheEnd()
    {
        QStringList texts;
        for (int index = 0; index < 30; ++index)
            texts.append(QStringLiteral("Message %1\nwith a second line").arg(index));
        ViewHarness view(FakeEngine::stateJson(),
                         {ViewHarness::conversation("Short", {"hi"}), ViewHarness::conversation("Long", texts)});
        view.click(view.visibleItems("conversationRow").at(1));
        QVERIFY(view.waitFor([&] { return atEnd(view); }, 2000));
    }

    void imagesShowWhenValidAndAreSkippedOtherwise()
    {
        Conversation conversation = ViewHarness::conversation("Pictures",
                                                              {"valid", "ok", "broken", "ok", "no comma", "ok"});
        conversation.messages[0].image = pngDataURL(800, 400);
        conversation.messages[2].image = QStringLiteral("data:image/png;base64,@@not base64@@");
        conversation.messages[4].image = QStringLiteral("just some text");
        ViewHarness view(FakeEngine::stateJson(), {conversation});
        // Blocks just below the view are made in the background.
        QVERIFY(view.waitFor([&] { return view.items("messageImage").size() == 6; }));
        const QList<QQuickItem *> images = view.items("messageImage");
        QVERIFY(ViewHarness::shown(images.at(0)));
        QCOMPARE(images.at(0)->width(), 260.0);
        QCOMPARE(images.at(0)->height(), 130.0);
        QVERIFY(!ViewHarness::shown(images.at(2)));
        QVERIFY(!ViewHarness::shown(images.at(4)));
        QVERIFY(!ViewHarness::shown(images.at(1)));
        QCOMPARE(ViewHarness::text(view.items("messageText").at(2)), QStringLiteral("broken"));
        QVERIFY(ViewHarness::shown(view.items("messageText").at(2)));
    }

    void imageDecodingRules()
    {
        QVERIFY(!MessageImage::decode(pngDataURL(3, 3)).isNull());
        // Only what follows the first comma counts, whatever comes before it.
        QVERIFY(!MessageImage::decode(QStringLiteral("x,") + pngDataURL(3, 3).section(',', 1)).isNull());
        QVERIFY(MessageImage::decode(QStringLiteral("data:image/png;base64")).isNull());
        QVERIFY(MessageImage::decode(QStringLiteral("data:image/png;base64,!!!")).isNull());
        QVERIFY(MessageImage::decode(QStringLiteral("data:image/png;base64,aGVsbG8=")).isNull());
        QCOMPARE(MessageImage::fitted(QSize(100, 400), QSizeF(260, 200)), QSizeF(50, 200));
        QCOMPARE(MessageImage::fitted(QSize(10, 10), QSizeF(260, 200)), QSizeF(200, 200));
    }

    void footerShowsThroughputOnlyAfterAPositiveSpeed()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"));
        QVERIFY(view.refresh());
        QCOMPARE(ViewHarness::text(view.item("onDeviceLabel")), QStringLiteral("On-device"));
        QVERIFY(!ViewHarness::shown(view.item("throughputLabel")));
        view.setEngineState(FakeEngine::stateJson("m.gguf", false, "[]", "[]", 12.345, 128));
        QVERIFY(view.refresh());
        QVERIFY(ViewHarness::shown(view.item("throughputLabel")));
        QCOMPARE(ViewHarness::text(view.item("throughputLabel")), QStringLiteral("Last reply \u00b7 12.3 tok/s"));
        QCOMPARE(ViewHarness::text(view.item("tokensLabel")), QStringLiteral(" 128 tokens"));
        view.setEngineState(FakeEngine::stateJson("m.gguf", false, "[]", "[]", 0, 5));
        QVERIFY(view.refresh());
        QVERIFY(!ViewHarness::shown(view.item("throughputLabel")));
    }

    void theFooterMeterShowsTheContextInThreeColours()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"));
        QVERIFY(view.refresh());
        QQuickItem *meter = view.item("contextMeter");
        QVERIFY(meter);
        QVERIFY(!ViewHarness::shown(meter));
        const auto colour = [&] { return meter->property("color").value<QColor>(); };
        const QColor accent = view.item("throughputLabel")->property("color").value<QColor>();
        const QColor orange = view.item("visionWarning")->property("color").value<QColor>();

        view.fake().route("POST", "/api/count", FakeResponse::count(2310, 8192, 0));
        view.typeInto(view.item("promptField"), QStringLiteral("Hello"));
        QVERIFY(view.waitFor([&] { return ViewHarness::shown(meter); }));
        QCOMPARE(ViewHarness::text(meter), QStringLiteral("2,310 / 8,192 tokens"));
        QCOMPARE(colour(), accent);

        view.fake().route("POST", "/api/count", FakeResponse::count(6600, 8192, 0));
        view.typeInto(view.item("promptField"), QStringLiteral("!"));
        QVERIFY(view.waitFor([&] { return ViewHarness::text(meter) == QStringLiteral("6,600 / 8,192 tokens"); }));
        QCOMPARE(colour(), orange);

        view.fake().route("POST", "/api/count", FakeResponse::count(6100, 8192, 3));
        view.typeInto(view.item("promptField"), QStringLiteral("!"));
        QVERIFY(view.waitFor([&] { return ViewHarness::text(meter) == QStringLiteral("6,100 / 8,192 tokens"); }));
        QVERIFY(colour() != accent && colour() != orange);
        QCOMPARE(colour(), QColor("#d70015"));

        // No model, no meter.
        view.setEngineState(FakeEngine::stateJson());
        QVERIFY(view.refresh());
        QVERIFY(!ViewHarness::shown(meter));
    }

    void aDividerMarksWhereTheModelsViewBeganAndTheComposerWarnsBeforeSending()
    {
        Conversation history = ViewHarness::conversation(
            "Long", {"First question", "First answer", "Second question", "Second answer"});
        ViewHarness view(FakeEngine::stateJson("m.gguf"), {history});
        view.fake().route("POST", "/api/count", FakeResponse::count(400, 512, 0));
        view.fake().route("POST", "/v1/chat/completions",
                          FakeResponse::stream({ViewHarness::delta("Third answer"),
                                                FakeResponse::lastChunk(300, 12, 512, 2), "data: [DONE]\n\n"}));
        QVERIFY(view.refresh());
        QVERIFY(view.items("contextDivider").size() == 4);
        QVERIFY(view.visibleItems("contextDivider").isEmpty());
        QVERIFY(!ViewHarness::shown(view.item("contextNotice")));

        view.store().setPrompt(QStringLiteral("Third question"));
        view.store().send();
        QVERIFY(view.waitFor([&] { return !view.store().generating(); }));
        view.settle();
        const QList<QQuickItem *> dividers = view.visibleItems("contextDivider");
        QCOMPARE(dividers.size(), 1);
        QCOMPARE(ViewHarness::text(view.visibleItems("contextDividerText").first()),
                 QStringLiteral("Earlier messages are beyond the model's context"));
        // It sits in the block of the third message, above its text.
        QQuickItem *block = dividers.first()->parentItem();
        QCOMPARE(block->objectName(), QStringLiteral("messageBlock"));
        QCOMPARE(block->property("messageId").toString(), uuidText(history.messages.at(2).id));
        const QList<QQuickItem *> texts = view.visibleItems("messageText");
        QCOMPARE(texts.size(), 6);
        QVERIFY(ViewHarness::sceneRect(dividers.first()).bottom() < ViewHarness::sceneRect(texts.at(2)).top());
        QVERIFY(ViewHarness::sceneRect(dividers.first()).top() > ViewHarness::sceneRect(texts.at(1)).bottom());

        // A draft that would leave out more than the reply did shows the notice.
        view.fake().route("POST", "/api/count", FakeResponse::count(380, 512, 4));
        view.typeInto(view.item("promptField"), QStringLiteral("A long question"));
        QQuickItem *notice = view.item("contextNotice");
        QVERIFY(view.waitFor([&] { return ViewHarness::shown(notice); }));
        QCOMPARE(ViewHarness::text(notice),
                 QStringLiteral("Sending this leaves earlier messages beyond the model's context."));
        view.store().setPrompt(QString());
        view.settle();
        QVERIFY(!ViewHarness::shown(notice));
    }

    void contextScreenshots()
    {
        struct Shot {
            const char *name;
            qint64 tokens;
            const char *draft;
        };
        for (const char *appearance : {"light", "dark"}) {
            ViewHarness::resetSettings();
            QSettings().setValue("appearance", appearance);
            Conversation history = ViewHarness::conversation(
                "Trip planning",
                {"Plan three days in Lisbon for me.", "Day one: Alfama and the castle...", "And the second day?",
                 "Day two: Belém, the tower and the monastery..."});
            ViewHarness view(
                FakeEngine::stateJson("llama-3.2-3b-instruct-q4_k_m.gguf", false, "[]", "[]", 38.4, 96, "cpu", 8192),
                {history});
            view.fake().route("POST", "/v1/chat/completions",
                              FakeResponse::stream({ViewHarness::delta("Day three: a train to Sintra..."),
                                                    FakeResponse::lastChunk(6050, 96, 8192, 2), "data: [DONE]\n\n"}));
            QVERIFY(view.refresh());
            for (const Shot &shot : {Shot{"comfortable", 2310, "What about day three?"},
                                     Shot{"nearly-full", 6900, "What about day three, with a trip to Sintra?"}}) {
                view.fake().route("POST", "/api/count", FakeResponse::count(shot.tokens, 8192, 0));
                view.store().setPrompt(QString::fromUtf8(shot.draft));
                QVERIFY(view.waitFor(
                    [&] { return view.store().contextMeterText().startsWith(groupedNumberText(shot.tokens) + " /"); }));
                view.settle();
                view.saveScreenshot(
                    QStringLiteral("context-meter-%1-%2").arg(QLatin1String(shot.name), QLatin1String(appearance)));
            }
            // A reply that left the first two messages out: red meter, divider.
            view.store().setPrompt(QStringLiteral("And day three?"));
            view.store().send();
            QVERIFY(view.waitFor([&] { return !view.store().generating(); }));
            view.fake().route("POST", "/api/count", FakeResponse::count(6300, 8192, 4));
            view.store().setPrompt(QStringLiteral("Now add restaurants for every day, with prices and times."));
            QVERIFY(view.waitFor([&] { return view.store().draftBeyondContext(); }));
            view.settle();
            QCOMPARE(view.store().contextMeterLevel(), QStringLiteral("overflowing"));
            view.saveScreenshot(QStringLiteral("context-meter-overflowing-%1").arg(QLatin1String(appearance)));
        }
    }

    void promptFieldGrowsToSixLinesThenScrolls()
    {
        ViewHarness view(FakeEngine::stateJson("m.gguf"));
        QQuickItem *field = view.item("promptField");
        QQuickItem *scroll = field->parentItem();
        while (scroll && !scroll->inherits("QQuickScrollView"))
            scroll = scroll->parentItem();
        QVERIFY(scroll);
        const qreal oneLine = scroll->height();
        view.store().setPrompt(QStringLiteral("1\n2\n3"));
        view.settle();
        const qreal threeLines = scroll->height();
        QVERIFY(threeLines > oneLine * 2);
        view.store().setPrompt(QStringLiteral("1\n2\n3\n4\n5\n6"));
        view.settle();
        const qreal sixLines = scroll->height();
        view.store().setPrompt(QStringLiteral("1\n2\n3\n4\n5\n6\n7\n8\n9\n10"));
        view.settle();
        QCOMPARE(scroll->height(), sixLines);
        QVERIFY(field->height() > sixLines);
        QCOMPARE(field->property("placeholderText").toString(), QStringLiteral("Ask Vorn\u2026"));
    }

    void screenshots()
    {
        Conversation conversation = ViewHarness::conversation("Sourdough", {});
        ViewHarness view(
            FakeEngine::stateJson("llama-3.2-3b-instruct-q4_k_m.gguf", true, "[]", "[]", 41.27, 212, "gpu"),
            {conversation});
        view.fake().route(
            "POST", "/v1/chat/completions",
            FakeResponse::stream(reply({"A good starter needs three things: ", "flour, water and patience.\n\n",
                                        "1. Mix equal weights of flour and water.\n",
                                        QStringLiteral("2. Keep it warm, around 24 \u00b0C.\n"),
                                        "3. Feed it every day for about a week, discarding half before each feed.\n\n",
                                        "Once it doubles within a few hours of feeding, it is ready to bake with."}),
                                 2));
        QVERIFY(view.refresh());
        view.store().setAttachment(pngDataURL(320, 200));
        view.store().setPrompt(QStringLiteral("How do I start a sourdough starter at home?"));
        view.store().send();
        QVERIFY(view.waitFor([&] { return !view.store().generating(); }, 10000));
        QVERIFY(view.refresh());
        view.saveScreenshot(QStringLiteral("conversation-light"));
        view.click(view.item("appearanceDark"));
        view.saveScreenshot(QStringLiteral("conversation-dark"));
    }

    void streamingScreenshots()
    {
        ViewHarness view(FakeEngine::stateJson("llama-3.2-3b-instruct-q4_k_m.gguf", false, "[]", "[]", 0, 0, "cpu"),
                         {ViewHarness::conversation("Tides", {})});
        // Long pauses between pieces, so the reply is caught halfway.
        view.fake().route("POST", "/v1/chat/completions",
                          FakeResponse::stream(
                              reply({"Tides come from the Moon's pull on the oceans. ",
                                     "The side of the Earth facing the Moon is pulled a little more than the centre, ",
                                     "and the far side a little less,", " so the water bulges on both sides."}),
                              1500));
        QVERIFY(view.refresh());
        view.store().setPrompt(QStringLiteral("Why are there two high tides a day?"));
        view.store().send();
        QVERIFY(view.waitFor([&] { return view.store().messages().last().text.contains(QStringLiteral("centre")); },
                             10000));
        QVERIFY(view.store().generating());
        QVERIFY(view.waitFor([&] {
            return ViewHarness::text(view.visibleItems("messageText").last()).contains(QStringLiteral("centre"));
        }));
        view.saveScreenshot(QStringLiteral("conversation-streaming-light"));
        view.click(view.item("appearanceDark"));
        QVERIFY(view.store().generating());
        view.saveScreenshot(QStringLiteral("conversation-streaming-dark"));
        view.click(view.item("appearanceLight"));
        QVERIFY(view.waitFor([&] { return !view.store().generating(); }, 10000));
    }
};

int main(int argc, char *argv[])
{
    ViewHarness::prepareProcess();
    QApplication application(argc, argv);
    TranscriptTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "TranscriptTest.moc"
