#include "ReplySelection.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QQuickTextDocument>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextDocumentFragment>
#include <algorithm>
#include <utility>

namespace {

int length(QQuickItem *item)
{
    return item->property("length").toInt();
}

void select(QQuickItem *item, int start, int end)
{
    QMetaObject::invokeMethod(item, "select", Q_ARG(int, start), Q_ARG(int, end));
}

void deselect(QQuickItem *item)
{
    if (item->property("selectionStart") != item->property("selectionEnd"))
        QMetaObject::invokeMethod(item, "deselect");
}

// An item's selection as the clipboard gets it: paragraph and line separators become
// line breaks, tables one cell per line, as the text item's own Copy does.
QString selectionOf(QQuickItem *item)
{
    const int start = item->property("selectionStart").toInt();
    const int end = item->property("selectionEnd").toInt();
    if (start == end)
        return {};
    auto *quickDocument = item->property("textDocument").value<QQuickTextDocument *>();
    if (!quickDocument || !quickDocument->textDocument())
        return {};
    QTextCursor cursor(quickDocument->textDocument());
    cursor.setPosition(start);
    cursor.setPosition(end, QTextCursor::KeepAnchor);
    return QTextDocumentFragment(cursor).toPlainText();
}

} // namespace

ReplySelection::ReplySelection(QObject *parent) : QObject(parent) {}

void ReplySelection::setContainer(QQuickItem *container)
{
    if (m_container == container)
        return;
    m_container = container;
    emit containerChanged();
}

QList<QQuickItem *> ReplySelection::textItems() const
{
    QList<QQuickItem *> found;
    if (!m_container)
        return found;
    QList<QQuickItem *> pending = m_container->childItems();
    while (!pending.isEmpty()) {
        QQuickItem *item = pending.takeFirst();
        if (!item->isVisible())
            continue;
        const QString name = item->objectName();
        if (name == QLatin1String(proseName) || name == QLatin1String(codeName))
            found.append(item);
        else
            pending.append(item->childItems());
    }
    QQuickItem *container = m_container;
    std::stable_sort(found.begin(), found.end(), [container](QQuickItem *left, QQuickItem *right) {
        return left->mapToItem(container, QPointF()).y() < right->mapToItem(container, QPointF()).y();
    });
    return found;
}

int ReplySelection::itemAt(const QList<QQuickItem *> &items, QQuickItem *container, QPointF point)
{
    int index = items.isEmpty() ? -1 : 0;
    for (int candidate = 0; candidate < items.size(); ++candidate) {
        if (items.at(candidate)->mapToItem(container, QPointF()).y() <= point.y())
            index = candidate;
    }
    return index;
}

int ReplySelection::positionAt(QQuickItem *item, QPointF containerPoint) const
{
    const QPointF local = item->mapFromItem(m_container, containerPoint);
    int position = 0;
    QMetaObject::invokeMethod(item, "positionAt", Q_RETURN_ARG(int, position), Q_ARG(qreal, local.x()),
                              Q_ARG(qreal, local.y()));
    return position;
}

void ReplySelection::setAnchor(QQuickItem *item, int position)
{
    if (m_anchor == item) {
        m_anchorPosition = m_anchorEnd = position;
        if (item)
            watch(item);
        return;
    }
    if (m_anchor)
        m_anchor->disconnect(this);
    m_anchor = item;
    m_anchorPosition = m_anchorEnd = position;
    if (item) {
        watch(item);
        connect(item, SIGNAL(selectedTextChanged()), this, SLOT(keepAnchorSelection()));
    }
}

void ReplySelection::press(QPointF point)
{
    const QList<QQuickItem *> items = textItems();
    QQuickItem *pressed = itemUnder(items, point);
    m_contextPressInside = false;
    for (QQuickItem *item : items) {
        if (item != pressed)
            deselect(item);
    }
    for (const QPointer<QQuickItem> &item : std::as_const(m_watched)) {
        if (item)
            item->removeEventFilter(this);
    }
    m_watched.clear();
    setAnchor(pressed, pressed ? positionAt(pressed, point) : 0);
    setSpansSeveral(false);
}

QQuickItem *ReplySelection::itemUnder(const QList<QQuickItem *> &items, QPointF point) const
{
    const int index = itemAt(items, m_container, point);
    if (index < 0)
        return nullptr;
    QQuickItem *candidate = items.at(index);
    const QRectF bounds = candidate->mapRectToItem(m_container, candidate->boundingRect());
    return bounds.contains(point) ? candidate : nullptr;
}

void ReplySelection::contextPress(QPointF point)
{
    // The item under the button takes the focus; it is watched from now on, so that
    // the focus leaving it later ends the selection too.
    QQuickItem *pressed = itemUnder(textItems(), point);
    m_contextPressInside = pressed != nullptr;
    if (pressed)
        watch(pressed);
}

void ReplySelection::drag(QPointF point)
{
    if (!m_anchor || !m_container)
        return;
    const QList<QQuickItem *> items = textItems();
    const int index = itemAt(items, m_container, point);
    if (index < 0)
        return;
    spanTo(items, index, positionAt(items.at(index), point));
}

void ReplySelection::spanTo(const QList<QQuickItem *> &items, int index, int position)
{
    const int anchorIndex = static_cast<int>(items.indexOf(m_anchor));
    if (anchorIndex < 0)
        return;
    m_selecting = true;
    if (index == anchorIndex) {
        // Back inside the item it started in, which selects on its own again.
        for (QQuickItem *item : items) {
            if (item != m_anchor)
                deselect(item);
        }
        m_anchorEnd = position;
        if (m_spansSeveral)
            select(m_anchor, m_anchorPosition, m_anchorEnd);
    } else {
        const bool down = index > anchorIndex;
        m_anchorEnd = down ? length(m_anchor) : 0;
        select(m_anchor, m_anchorPosition, m_anchorEnd);
        const int first = std::min(index, anchorIndex);
        const int last = std::max(index, anchorIndex);
        for (int other = 0; other < items.size(); ++other) {
            QQuickItem *item = items.at(other);
            if (other == anchorIndex)
                continue;
            if (other < first || other > last)
                deselect(item);
            else if (other == index)
                select(item, down ? 0 : length(item), position);
            else
                select(item, 0, length(item));
            if (other >= first && other <= last)
                watch(item);
        }
    }
    m_selecting = false;
    setSpansSeveral(index != anchorIndex);
}

void ReplySelection::selectAll(QQuickItem *from)
{
    const QList<QQuickItem *> items = textItems();
    if (items.isEmpty())
        return;
    setAnchor(from && items.contains(from) ? from : items.first(), 0);
    // Every item whole; the span keeps starting in the item that has the focus.
    m_selecting = true;
    for (QQuickItem *item : items) {
        select(item, 0, length(item));
        watch(item);
    }
    m_anchorEnd = length(m_anchor);
    m_selecting = false;
    setSpansSeveral(items.size() > 1);
}

QString ReplySelection::selectedText() const
{
    QStringList parts;
    for (QQuickItem *item : textItems()) {
        QString part = selectionOf(item);
        // Each item's text goes on lines of its own; a selection that ran through an
        // item's last line break does not leave a blank line.
        while (part.endsWith(QLatin1Char('\n')))
            part.chop(1);
        if (!part.isEmpty())
            parts.append(part);
    }
    return parts.join(QLatin1Char('\n'));
}

void ReplySelection::copy() const
{
    const QString text = selectedText();
    if (text.isEmpty())
        return;
    QGuiApplication::clipboard()->setText(text);
}

void ReplySelection::watch(QQuickItem *item)
{
    if (m_watched.contains(item))
        return;
    item->installEventFilter(this);
    m_watched.append(item);
}

void ReplySelection::end()
{
    for (QQuickItem *item : textItems())
        deselect(item);
    for (const QPointer<QQuickItem> &item : std::as_const(m_watched)) {
        if (item)
            item->removeEventFilter(this);
    }
    m_watched.clear();
    setSpansSeveral(false);
}

bool ReplySelection::eventFilter(QObject *watched, QEvent *event)
{
    auto *item = qobject_cast<QQuickItem *>(watched);
    if (!item || !m_watched.contains(item))
        return QObject::eventFilter(watched, event);
    // The focus going elsewhere ends the span, as it ends a text item's own selection.
    // A menu opened over the text leaves both, and so does the right button pressed on
    // another item of the span to open one: the item takes the focus on any press.
    if (event->type() == QEvent::FocusOut) {
        // A right press inside the reply counts for the first focus change after it.
        const bool rightPressInside = std::exchange(m_contextPressInside, false)
            && QGuiApplication::mouseButtons().testFlag(Qt::RightButton);
        if (static_cast<QFocusEvent *>(event)->reason() == Qt::PopupFocusReason)
            return QObject::eventFilter(watched, event);
        if (!rightPressInside) {
            end();
            return QObject::eventFilter(watched, event);
        }
        // The item under the right button took the focus for its menu. The item that
        // lost it cleared its own selection; its part of the span comes back.
        const int start = item->property("selectionStart").toInt();
        const int stop = item->property("selectionEnd").toInt();
        if (start != stop) {
            QMetaObject::invokeMethod(
                this,
                [this, item = QPointer<QQuickItem>(item), start, stop] {
                    if (!item || !m_watched.contains(item))
                        return;
                    m_selecting = true;
                    select(item, start, stop);
                    m_selecting = false;
                },
                Qt::QueuedConnection);
        }
        return QObject::eventFilter(watched, event);
    }
    if (event->type() != QEvent::KeyPress && event->type() != QEvent::ShortcutOverride)
        return QObject::eventFilter(watched, event);
    auto *key = static_cast<QKeyEvent *>(event);
    const bool copying = key->matches(QKeySequence::Copy) && m_spansSeveral;
    const bool selectingAll = key->matches(QKeySequence::SelectAll);
    if (!copying && !selectingAll)
        return QObject::eventFilter(watched, event);
    if (event->type() == QEvent::ShortcutOverride) {
        // The key is the text item's, not a window shortcut's.
        event->accept();
        return true;
    }
    if (copying)
        copy();
    else
        selectAll(item);
    return true;
}

void ReplySelection::keepAnchorSelection()
{
    // Losing the focus clears the item's selection, and the span ends with it.
    if (m_selecting || !m_spansSeveral || !m_anchor || !m_anchor->hasActiveFocus())
        return;
    const int start = m_anchor->property("selectionStart").toInt();
    const int end = m_anchor->property("selectionEnd").toInt();
    if (std::min(m_anchorPosition, m_anchorEnd) == start && std::max(m_anchorPosition, m_anchorEnd) == end)
        return;
    m_selecting = true;
    select(m_anchor, m_anchorPosition, m_anchorEnd);
    m_selecting = false;
}

void ReplySelection::setSpansSeveral(bool spans)
{
    if (m_spansSeveral == spans)
        return;
    m_spansSeveral = spans;
    emit spanChanged();
}
