#include "DragAutoScroll.h"

#include <QCoreApplication>
#include <QGuiApplication>
#include <QMouseEvent>
#include <QPointingDevice>
#include <QQuickWindow>
#include <algorithm>

DragAutoScroll::DragAutoScroll(QObject *parent) : QObject(parent)
{
    m_timer.setInterval(interval);
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &DragAutoScroll::tick);
}

qreal DragAutoScroll::step(qreal beyond)
{
    return std::clamp(beyond / 3, 2.0, 60.0);
}

void DragAutoScroll::setView(QQuickItem *view)
{
    if (m_view == view)
        return;
    m_view = view;
    emit viewChanged();
}

void DragAutoScroll::setActive(bool active)
{
    if (m_active == active)
        return;
    m_active = active;
    if (active)
        m_timer.start();
    else
        m_timer.stop();
    emit activeChanged();
}

void DragAutoScroll::setScenePosition(QPointF position)
{
    if (m_scenePosition == position)
        return;
    m_scenePosition = position;
    emit scenePositionChanged();
}

bool DragAutoScroll::selectingText() const
{
    QQuickWindow *window = m_view ? m_view->window() : nullptr;
    QQuickItem *grabber = window ? window->mouseGrabberItem() : nullptr;
    return grabber && grabber->inherits("QQuickTextEdit") && m_view->isAncestorOf(grabber);
}

void DragAutoScroll::tick()
{
    if (!m_active || !m_view || !selectingText())
        return;
    const qreal y = m_view->mapFromScene(m_scenePosition).y();
    qreal by = 0;
    if (y < edge)
        by = -step(edge - y);
    else if (y > m_view->height() - edge)
        by = step(y - (m_view->height() - edge));
    if (by == 0)
        return;
    const qreal top = m_view->property("originY").toReal();
    const qreal bottom = top + std::max<qreal>(0, m_view->property("contentHeight").toReal() - m_view->height());
    const qreal from = m_view->property("contentY").toReal();
    const qreal to = std::clamp(from + by, top, bottom);
    if (to == from)
        return;
    m_view->setProperty("contentY", to);
    emit scrolled();
    // The text under the pointer changed; the drag's own move says so to the item
    // that selects.
    QQuickWindow *window = m_view->window();
    QMouseEvent move(QEvent::MouseMove, m_scenePosition, m_scenePosition, window->mapToGlobal(m_scenePosition),
                     Qt::NoButton, Qt::LeftButton, QGuiApplication::keyboardModifiers(),
                     QPointingDevice::primaryPointingDevice());
    QCoreApplication::sendEvent(window, &move);
}
