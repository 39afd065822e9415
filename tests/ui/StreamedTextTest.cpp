// The message text view's feed from the message list, without the window.
#include "StreamedText.h"

#include <QGuiApplication>
#include <QQuickTextDocument>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QSignalSpy>
#include <QStandardItemModel>
#include <QTextDocument>
#include <QtTest>
#include <memory>

namespace {

constexpr int textRole = Qt::UserRole + 3;

// A list with a "text" role, like the message list.
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

private slots:
    void showsItsRowAtOnce()
    {
        TextList list({QStringLiteral("first"), QStringLiteral("second")});
        Document view;
        StreamedText feed;
        feed.setModel(&list);
        feed.setRow(1);
        feed.setDocument(view.quickDocument);
        QCOMPARE(view.document()->toPlainText(), QStringLiteral("second"));
        QVERIFY(!view.document()->isUndoRedoEnabled());

        feed.setRow(0);
        QCOMPARE(view.document()->toPlainText(), QStringLiteral("first"));
    }

    void growingTextIsAppendedOnTheNextFrame()
    {
        TextList list({QStringLiteral("Once")});
        Document view;
        StreamedText feed;
        feed.setModel(&list);
        feed.setRow(0);
        feed.setDocument(view.quickDocument);
        QSignalSpy changes(view.document(), &QTextDocument::contentsChange);

        list.setText(0, QStringLiteral("Once upon"));
        list.setText(0, QStringLiteral("Once upon a time\nthere was"));
        // Nothing is laid out per token: the growth waits for the frame.
        QCOMPARE(view.document()->toPlainText(), QStringLiteral("Once"));
        QTRY_COMPARE(view.document()->toPlainText(), QStringLiteral("Once upon a time\nthere was"));
        // One change, at the end: the first paragraph was left as it was.
        QCOMPARE(changes.size(), 1);
        QCOMPARE(changes.first().at(0).toInt(), 4);
        QCOMPARE(changes.first().at(1).toInt(), 0);
    }

    void otherChangesReplaceTheTextAtOnce()
    {
        TextList list({QStringLiteral("Hello world"), QStringLiteral("other")});
        Document view;
        StreamedText feed;
        feed.setModel(&list);
        feed.setRow(0);
        feed.setDocument(view.quickDocument);

        list.setText(0, QStringLiteral("Hello"));
        QCOMPARE(view.document()->toPlainText(), QStringLiteral("Hello"));
        list.setText(0, QStringLiteral("Goodbye, and more"));
        QCOMPARE(view.document()->toPlainText(), QStringLiteral("Goodbye, and more"));

        QSignalSpy changes(view.document(), &QTextDocument::contentsChange);
        list.setText(1, QStringLiteral("another row"));
        QTest::qWait(3 * StreamedText::appendInterval);
        QCOMPARE(changes.size(), 0);
        QCOMPARE(view.document()->toPlainText(), QStringLiteral("Goodbye, and more"));
    }

    void rowsMovingUnderItAreFollowed()
    {
        TextList list({QStringLiteral("a reply being written")});
        Document view;
        StreamedText feed;
        feed.setModel(&list);
        feed.setRow(0);
        feed.setDocument(view.quickDocument);
        list.setText(0, QStringLiteral("a reply being written, longer"));
        // A reset (another conversation selected) shows the new text at once, even
        // though an append was waiting.
        list.clear();
        QCOMPARE(view.document()->toPlainText(), QString());
        QTest::qWait(3 * StreamedText::appendInterval);
        QCOMPARE(view.document()->toPlainText(), QString());
    }
};

QTEST_MAIN(StreamedTextTest)
#include "StreamedTextTest.moc"
