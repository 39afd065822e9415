#include "MessageImage.h"

#include <QPainter>
#include <QPainterPath>

MessageImage::MessageImage(QQuickItem *parent) : QQuickPaintedItem(parent)
{
    setAntialiasing(true);
}

QImage MessageImage::decode(const QString &dataURL)
{
    const qsizetype comma = dataURL.indexOf(QLatin1Char(','));
    if (comma < 0)
        return {};
    const auto decoded = QByteArray::fromBase64Encoding(dataURL.mid(comma + 1).toLatin1(),
                                                        QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || decoded.decoded.isEmpty())
        return {};
    return QImage::fromData(decoded.decoded);
}

QSizeF MessageImage::fitted(const QSize &imageSize, const QSizeF &bounds)
{
    if (imageSize.isEmpty() || bounds.isEmpty())
        return {0, 0};
    return QSizeF(imageSize).scaled(bounds, Qt::KeepAspectRatio);
}

void MessageImage::setSource(const QString &source)
{
    if (m_source == source)
        return;
    m_source = source;
    m_image = decode(source);
    updateImplicitSize();
    emit sourceChanged();
    update();
}

void MessageImage::setMaximumSize(const QSizeF &size)
{
    if (m_maximumSize == size)
        return;
    m_maximumSize = size;
    updateImplicitSize();
    emit maximumSizeChanged();
}

void MessageImage::setRadius(qreal radius)
{
    if (qFuzzyCompare(m_radius, radius))
        return;
    m_radius = radius;
    emit radiusChanged();
    update();
}

void MessageImage::updateImplicitSize()
{
    const QSizeF size = valid() ? fitted(m_image.size(), m_maximumSize) : QSizeF(0, 0);
    setImplicitSize(size.width(), size.height());
}

void MessageImage::paint(QPainter *painter)
{
    if (m_image.isNull())
        return;
    const QSizeF size = fitted(m_image.size(), QSizeF(width(), height()));
    const QRectF target(QPointF((width() - size.width()) / 2, (height() - size.height()) / 2), size);
    QPainterPath clip;
    clip.addRoundedRect(target, m_radius, m_radius);
    painter->setRenderHint(QPainter::Antialiasing);
    painter->setRenderHint(QPainter::SmoothPixmapTransform);
    painter->setClipPath(clip);
    painter->drawImage(target, m_image);
}
