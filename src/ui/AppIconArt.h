#pragma once

#include <QColor>
#include <QImage>
#include <QPainter>

// Vorn's mark: three stems with a ring on each top, the outer two curving in to meet
// the middle one near the bottom. Drawn at run time on a 20 by 20 design grid.
namespace AppIconArt {

// Strokes the mark into a painter whose coordinates are the 20 by 20 grid.
void drawMark(QPainter &painter, const QColor &color);
// The tray image: the bare mark, size by size pixels.
QImage trayImage(int size, const QColor &color);
// The application icon: the mark in white on a rounded teal tile.
QImage applicationImage(int size);
void drawApplicationIcon(QPainter &painter, const QRectF &rect);

} // namespace AppIconArt
