// The message text view's feed from the message list, without the window.
#include "StreamedText.h"

#include <QGuiApplication>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickTextDocument>
#include <QSignalSpy>
#include <QStandardItemModel>
#include <QTextDocument>
#include <QtTest>
#include <memory>

namespace {

constexpr int textRole = Qt::UserRole + 3;

// A list with a "text" role, like the message fed.list.
class TextList : public QStandardItemModel {
public:
    explicit TextList(const QStringList &texts)
    {
        for (const QString &text : texts) {
            auto *item = new QStandardItem;
            item->setData(text, textRole);
            appendRow(item);
        }
    }
    QHash<int, QByteArray> roleNames() const override { return {{textRole, "text"}}; }
    void setText(int row, const QString &text) { item(row)->setData(text, textRole); }
};

} // namespace

class StreamedTextTest : public QObject {
    Q_OBJECT

private:
    // A TextEdit's document, as the message view hands it out.
    struct Document {
        QQmlEngine engine;
        std::unique_ptr<QObject> edit;
        QQuickTextDocument *quickDocument = nullptr;
        Document()
        {
            QQmlComponent component(&engine);
            component.setData("import QtQuick\nTextEdit { readOnly: true }", QUrl());
            edit.reset(component.create());
            quickDocument = edit->property("textDocument").value<QQuickTextDocument *>();
        }
        QTextDocument *document() const { return quickDocument->textDocument(); }
    };

    // A view fed from one row of a fed.list.
    struct Fed {
        TextList list;
        Document view;
        StreamedText feed;
        Fed(const QStringList &texts, int row) : list(texts)
        {
            feed.setModel(&list);
            feed.setRow(row);
            feed.setDocument(view.quickDocument);
        }
        QString shown() const { return view.document()->toPlainText(); }
    };

    // A feed of one row whose text the view has just shown.
    struct ShownFeed {
        TextList list{{QStringLiteral("Once")}};
        RowTextFeed feed;
        ShownFeed()
        {
            feed.setModel(&list);
            feed.setRow(0);
            feed.setRole("text");
            feed.setShown(feed.text());
        }
    };

private slots:
    void showsItsRowAtOnce()
    {
        Fed fed({QStringLiteral("first"), QStringLiteral("second")}, 1);
        QCOMPARE(fed.shown(), QStringLiteral("second"));
        QVERIFY(!fed.view.document()->isUndoRedoEnabled());

        fed.feed.setRow(0);
        QCOMPARE(fed.shown(), QStringLiteral("first"));
    }

    void growingTextIsAppendedOnTheNextFrame()
    {
        Fed fed({QStringLiteral("Once")}, 0);
        QSignalSpy changes(fed.view.document(), &QTextDocument::contentsChange);

        fed.list.setText(0, QStringLiteral("Once upon"));
        fed.list.setText(0, QStringLiteral("Once upon a time\nthere was"));
        // Nothing is laid out per token: the growth waits for the frame.
        QCOMPARE(fed.shown(), QStringLiteral("Once"));
        QTRY_COMPARE(fed.shown(), QStringLiteral("Once upon a time\nthere was"));
        // One change, at the end: the first paragraph was left as it was.
        QCOMPARE(changes.size(), 1);
        QCOMPARE(changes.first().at(0).toInt(), 4);
        QCOMPARE(changes.first().at(1).toInt(), 0);
    }

    void growthRightAfterShowingWaitsForTheRestOfTheFrame()
    {
        ShownFeed shown;
        TextList &list = shown.list;
        RowTextFeed &feed = shown.feed;
        QSignalSpy due(&feed, &RowTextFeed::due);

        list.setText(0, QStringLiteral("Once upon"));
        QCOMPARE(due.size(), 0);
        QVERIFY(feed.growthDueIn() >= 0);
        QVERIFY(feed.growthDueIn() <= RowTextFeed::growInterval);
        // The rest of the burst joins the showing already waiting.
        list.setText(0, QStringLiteral("Once upon a time"));
        QTRY_COMPARE(due.size(), 1);
        QCOMPARE(feed.growthDueIn(), -1);
    }

    void growthAfterAQuietFrameIsDueWithTheNextTurnOfTheEventLoop()
    {
        ShownFeed shown;
        TextList &list = shown.list;
        RowTextFeed &feed = shown.feed;
        QSignalSpy due(&feed, &RowTextFeed::due);
        QTest::qWait(2 * RowTextFeed::growInterval);

        // Not a whole frame more: the frame since the text was shown has passed.
        list.setText(0, QStringLiteral("Once upon"));
        list.setText(0, QStringLiteral("Once upon a time"));
        QCOMPARE(due.size(), 0);
        QCOMPARE(feed.growthDueIn(), 0);
        QTRY_COMPARE(due.size(), 1);
    }

    void otherChangesReplaceTheTextAtOnce()
    {
        Fed fed({QStringLiteral("Hello world"), QStringLiteral("other")}, 0);

        fed.list.setText(0, QStringLiteral("Hello"));
        QCOMPARE(fed.shown(), QStringLiteral("Hello"));
        fed.list.setText(0, QStringLiteral("Goodbye, and more"));
        QCOMPARE(fed.shown(), QStringLiteral("Goodbye, and more"));

        QSignalSpy changes(fed.view.document(), &QTextDocument::contentsChange);
        fed.list.setText(1, QStringLiteral("another row"));
        QTest::qWait(3 * StreamedText::appendInterval);
        QCOMPARE(changes.size(), 0);
        QCOMPARE(fed.shown(), QStringLiteral("Goodbye, and more"));
    }

    void aResetShowsTheNewTextAtOnce()
    {
        Fed fed({QStringLiteral("a reply being written")}, 0);
        fed.list.setText(0, QStringLiteral("a reply being written, longer"));
        // A reset (another conversation selected) shows the new text at once, even
        // though an append was waiting.
        fed.list.clear();
        QCOMPARE(fed.shown(), QString());
        QTest::qWait(3 * StreamedText::appendInterval);
        QCOMPARE(fed.shown(), QString());
    }
};

QTEST_MAIN(StreamedTextTest)
#include "StreamedTextTest.moc"
