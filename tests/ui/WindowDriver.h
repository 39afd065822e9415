#pragma once

#include <QImage>
#include <QPointer>
#include <QQuickItem>
#include <QQuickWindow>
#include <functional>

// Finds items of a QML window by object name and works them like a user: clicks, keys,
// typing, waiting, and screenshots into docs/screenshots.
class WindowDriver {
public:
    explicit WindowDriver(QQuickWindow *window = nullptr) : m_window(window) {}

    QQuickWindow *window() const { return m_window; }
    void setWindow(QQuickWindow *window) { m_window = window; }

    QObject *object(const QString &objectName) const;
    QQuickItem *item(const QString &objectName) const;
    // Every item of that name, visible or not, in tree order.
    QList<QQuickItem *> items(const QString &objectName) const;
    QList<QQuickItem *> visibleItems(const QString &objectName) const;
    static bool shown(const QQuickItem *item);
    // The opacity an item is drawn with: its own times that of every item around it.
    static qreal drawnOpacity(const QQuickItem *item);
    // An item's rectangle in window coordinates.
    static QRectF sceneRect(const QQuickItem *item);
    static QString text(const QQuickItem *item);

    void click(QQuickItem *item);
    void typeInto(QQuickItem *field, const QString &text);
    void key(int key, Qt::KeyboardModifiers modifiers = Qt::NoModifier);
    // Lets posted events, bindings and layouts run.
    void settle();
    bool waitFor(const std::function<bool()> &condition, int timeoutMs = 5000);

    QImage grab();
    // Writes docs/screenshots/<name>.png.
    void saveScreenshot(const QString &name);

private:
    QPointer<QQuickWindow> m_window;
};
