#pragma once

#include <QObject>
#include <QPointF>
#include <QPointer>
#include <QQuickItem>
#include <QTimer>
#include <QtQml/qqmlregistration.h>

// Scrolls a view while a drag that selects its text is held past its top or bottom
// edge, as text views do. The pointer stands still meanwhile, so after each step the
// drag's last move is given again: the selection follows the text under it.
class DragAutoScroll : public QObject {
    Q_OBJECT
    QML_ELEMENT
    // The Flickable (or ListView) to scroll.
    Q_PROPERTY(QQuickItem *view READ view WRITE setView NOTIFY viewChanged)
    // Whether a drag is held, and where the pointer is, in window coordinates.
    Q_PROPERTY(bool active READ active WRITE setActive NOTIFY activeChanged)
    Q_PROPERTY(QPointF scenePosition READ scenePosition WRITE setScenePosition NOTIFY scenePositionChanged)
public:
    explicit DragAutoScroll(QObject *parent = nullptr);

    // How near the edge, inside the view, scrolling starts.
    static constexpr qreal edge = 16;
    // One step for each frame of a 60 Hz display.
    static constexpr int interval = 16;
    // How far one step scrolls when the pointer is that far past the edge: slowly
    // near it, faster further out, never more than a few lines at once.
    static qreal step(qreal beyond);

    QQuickItem *view() const { return m_view; }
    void setView(QQuickItem *view);
    bool active() const { return m_active; }
    void setActive(bool active);
    QPointF scenePosition() const { return m_scenePosition; }
    void setScenePosition(QPointF position);

signals:
    void viewChanged();
    void activeChanged();
    void scenePositionChanged();
    // The view moved by a step.
    void scrolled();

private:
    void tick();
    // Whether the item holding the mouse is text inside the view: a drag that
    // selects, not one that presses a button.
    bool selectingText() const;

    QPointer<QQuickItem> m_view;
    bool m_active = false;
    QPointF m_scenePosition;
    QTimer m_timer;
};
