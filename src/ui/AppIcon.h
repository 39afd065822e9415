#pragma once

#include <QQuickPaintedItem>
#include <QtQml/qqmlregistration.h>

// The application icon, drawn at the item's size.
class AppIcon : public QQuickPaintedItem {
    Q_OBJECT
    QML_ELEMENT
public:
    explicit AppIcon(QQuickItem *parent = nullptr);
    void paint(QPainter *painter) override;
};
