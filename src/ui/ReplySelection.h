#pragma once

#include <QObject>
#include <QPointF>
#include <QPointer>
#include <QQuickItem>
#include <QtQml/qqmlregistration.h>

// One selection across a reply's runs of prose and its code blocks, which are text
// items of their own. The item a drag starts in selects from the press as it always
// does; when the drag reaches other items, those up to the pointer are selected too,
// and Copy or Select All then take the whole span. A press elsewhere, or the focus
// going out of the span, ends it; a right click for the text's menu does not.
class ReplySelection : public QObject {
    Q_OBJECT
    QML_ELEMENT
    // The reply's item: its text items are found inside it, in the order they show.
    Q_PROPERTY(QQuickItem *container READ container WRITE setContainer NOTIFY containerChanged)
    // Whether the selection covers more than one text item.
    Q_PROPERTY(bool spansSeveral READ spansSeveral NOTIFY spanChanged)
public:
    explicit ReplySelection(QObject *parent = nullptr);

    // The object names of the text items a selection spans.
    static constexpr const char *proseName = "replyProse";
    static constexpr const char *codeName = "codeText";

    QQuickItem *container() const { return m_container; }
    void setContainer(QQuickItem *container);
    bool spansSeveral() const { return m_spansSeveral; }

    // A mouse press at a point of the container.
    Q_INVOKABLE void press(QPointF point);
    // A right-button press at a point of the container, for a text's menu.
    Q_INVOKABLE void contextPress(QPointF point);
    // The pressed mouse moved to a point of the container.
    Q_INVOKABLE void drag(QPointF point);
    // Selects every text item of the reply, from the one that has the focus.
    Q_INVOKABLE void selectAll(QQuickItem *from);
    // The selected text of every item in the span, one item's text per line.
    Q_INVOKABLE QString selectedText() const;
    // Puts selectedText() on the clipboard.
    Q_INVOKABLE void copy() const;

signals:
    void containerChanged();
    void spanChanged();

protected:
    // Copy and Select All on an item of the span take the whole span; the focus going
    // elsewhere ends it.
    bool eventFilter(QObject *watched, QEvent *event) override;

private slots:
    // The item that started the span changed its own selection, as it does while
    // the mouse moves: its part of the span is put back.
    void keepAnchorSelection();

private:
    // The reply's text items, top to bottom.
    QList<QQuickItem *> textItems() const;
    // Which of the items a point of the container falls on: the last that starts
    // above it, else the first; -1 when there is none.
    static int itemAt(const QList<QQuickItem *> &items, QQuickItem *container, QPointF point);
    // The item whose bounds hold the point, or null.
    QQuickItem *itemUnder(const QList<QQuickItem *> &items, QPointF point) const;
    int positionAt(QQuickItem *item, QPointF containerPoint) const;
    void setAnchor(QQuickItem *item, int position);
    // Selects from the anchor to that position of the item at index.
    void spanTo(const QList<QQuickItem *> &items, int index, int position);
    void setSpansSeveral(bool spans);
    // Copy, Select All and the focus are watched on the items of the span.
    void watch(QQuickItem *item);
    // Deselects every item of the reply and stops watching them.
    void end();

    QPointer<QQuickItem> m_container;
    QPointer<QQuickItem> m_anchor;
    int m_anchorPosition = 0;
    // The anchor's part of a span: from m_anchorPosition to here.
    int m_anchorEnd = 0;
    QList<QPointer<QQuickItem>> m_watched;
    // The right button was last pressed on one of the reply's text items.
    bool m_contextPressInside = false;
    bool m_spansSeveral = false;
    bool m_selecting = false;
};
