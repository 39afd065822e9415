#include "AppIconArt.h"

#include <QLinearGradient>
#include <QPainterPath>

namespace AppIconArt {

void drawMark(QPainter &painter, const QColor &color)
{
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setBrush(Qt::NoBrush);
    // The grid's origin is bottom left; Qt's is top left, so every y is 20 - y.
    const auto flip = [](qreal x, qreal y) { return QPointF(x, 20 - y); };

    QPen ringPen(color, 1.0);
    QPen stemPen(color, 1.7, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    QPainterPath stems;
    for (const qreal x : {4.0, 10.0, 16.0}) {
        stems.moveTo(flip(x, 17));
        stems.lineTo(flip(x, 10));
        stems.cubicTo(flip(x, 7), flip(10, 7), flip(10, 3));
        // The ring's rectangle spans y 16 to 19.2 on the grid.
        painter.setPen(ringPen);
        painter.drawEllipse(QRectF(x - 1.6, 20 - 19.2, 3.2, 3.2));
    }
    painter.setPen(stemPen);
    painter.drawPath(stems);
    painter.restore();
}

QImage trayImage(int size, const QColor &color)
{
    QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.scale(size / 20.0, size / 20.0);
    drawMark(painter, color);
    return image;
}

void drawApplicationIcon(QPainter &painter, const QRectF &rect)
{
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    QLinearGradient fill(rect.topLeft(), rect.bottomRight());
    fill.setColorAt(0, QColor::fromRgbF(0.20f, 0.62f, 0.57f));
    fill.setColorAt(1, QColor::fromRgbF(0.09f, 0.36f, 0.34f));
    painter.setPen(Qt::NoPen);
    painter.setBrush(fill);
    const qreal radius = rect.width() * 0.225;
    painter.drawRoundedRect(rect, radius, radius);
    // The mark sits in the middle 64 % of the tile.
    const qreal markSize = rect.width() * 0.64;
    painter.translate(rect.center().x() - markSize / 2, rect.center().y() - markSize / 2);
    painter.scale(markSize / 20.0, markSize / 20.0);
    drawMark(painter, Qt::white);
    painter.restore();
}

QImage applicationImage(int size)
{
    QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    drawApplicationIcon(painter, QRectF(0, 0, size, size));
    return image;
}

} // namespace AppIconArt
