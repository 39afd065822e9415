#include "AppIcon.h"

#include "AppIconArt.h"

AppIcon::AppIcon(QQuickItem *parent) : QQuickPaintedItem(parent)
{
    setAntialiasing(true);
}

void AppIcon::paint(QPainter *painter)
{
    AppIconArt::drawApplicationIcon(*painter, QRectF(0, 0, width(), height()));
}
