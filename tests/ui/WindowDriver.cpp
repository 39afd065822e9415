#include "WindowDriver.h"

#include <QCoreApplication>
#include <QDir>
#include <QKeyEvent>
#include <QtQuickTest/quicktest.h>
#include <QtTest>

namespace {

void collect(QQuickItem *item, const QString &name, QList<QQuickItem *> &found)
{
    if (!item)
        return;
    if (item->objectName() == name)
        found.append(item);
    for (QQuickItem *child : item->childItems())
        collect(child, name, found);
}

} // namespace

QObject *WindowDriver::object(const QString &objectName) const
{
    if (QQuickItem *found = item(objectName))
        return found;
    return m_window->findChild<QObject *>(objectName);
}

QQuickItem *WindowDriver::item(const QString &objectName) const
{
    const QList<QQuickItem *> found = items(objectName);
    return found.isEmpty() ? nullptr : found.first();
}

QList<QQuickItem *> WindowDriver::items(const QString &objectName) const
{
    QList<QQuickItem *> found;
    collect(m_window->contentItem(), objectName, found);
    return found;
}

QList<QQuickItem *> WindowDriver::visibleItems(const QString &objectName) const
{
    QList<QQuickItem *> found;
    for (QQuickItem *item : items(objectName)) {
        if (shown(item))
            found.append(item);
    }
    return found;
}

bool WindowDriver::shown(const QQuickItem *item)
{
    return item && item->isVisible() && item->opacity() > 0;
}

qreal WindowDriver::drawnOpacity(const QQuickItem *item)
{
    qreal opacity = 1;
    for (; item; item = item->parentItem())
        opacity *= item->opacity();
    return opacity;
}

QRectF WindowDriver::sceneRect(const QQuickItem *item)
{
    return item ? item->mapRectToScene(QRectF(0, 0, item->width(), item->height())) : QRectF();
}

QString WindowDriver::text(const QQuickItem *item)
{
    return item ? item->property("text").toString() : QString();
}

void WindowDriver::click(QQuickItem *item)
{
    QVERIFY2(item, "no item to click");
    const QPointF center = item->mapToScene(QPointF(item->width() / 2, item->height() / 2));
    QTest::mouseClick(m_window, Qt::LeftButton, Qt::NoModifier, center.toPoint());
    settle();
}

void WindowDriver::typeInto(QQuickItem *field, const QString &text)
{
    QVERIFY2(field, "no field to type into");
    field->forceActiveFocus();
    for (const QChar character : text) {
        const int code = character == QLatin1Char('\n') ? Qt::Key_Return : character.toUpper().unicode();
        const QString typed = character == QLatin1Char('\n') ? QString() : QString(character);
        QKeyEvent press(QEvent::KeyPress, code, Qt::NoModifier, typed);
        QKeyEvent release(QEvent::KeyRelease, code, Qt::NoModifier, typed);
        QCoreApplication::sendEvent(m_window, &press);
        QCoreApplication::sendEvent(m_window, &release);
    }
    settle();
}

void WindowDriver::key(int key, Qt::KeyboardModifiers modifiers)
{
    QTest::keyClick(m_window, static_cast<Qt::Key>(key), modifiers);
    settle();
}

void WindowDriver::settle()
{
    // Posted events (bindings, deferred deletes, queued calls) first, then every
    // pending polish, which is where layouts and views place their items.
    QCoreApplication::processEvents();
    if (m_window && !QQuickTest::qWaitForPolish(m_window.data(), 5000))
        qWarning("The window did not finish laying out its items");
    QCoreApplication::processEvents();
}

bool WindowDriver::waitFor(const std::function<bool()> &condition, int timeoutMs)
{
    const bool met = QTest::qWaitFor(condition, timeoutMs);
    settle();
    return met;
}

QImage WindowDriver::grab()
{
    settle();
    return m_window->grabWindow();
}

void WindowDriver::saveScreenshot(const QString &name)
{
    const QString folder = QStringLiteral(VORN_SCREENSHOT_DIR);
    QDir().mkpath(folder);
    grab().save(QDir(folder).filePath(name + QStringLiteral(".png")), "PNG", 9);
}
