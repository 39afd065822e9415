#pragma once

#include <QImage>
#include <QQuickPaintedItem>
#include <QtQml/qqmlregistration.h>

// A message's attached picture, taken from its data URL and fitted into the block.
// Anything that does not decode to an image leaves the item invalid and empty.
class MessageImage : public QQuickPaintedItem {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QString source READ source WRITE setSource NOTIFY sourceChanged)
    Q_PROPERTY(bool valid READ valid NOTIFY sourceChanged)
    Q_PROPERTY(QSizeF maximumSize READ maximumSize WRITE setMaximumSize NOTIFY maximumSizeChanged)
    Q_PROPERTY(qreal radius READ radius WRITE setRadius NOTIFY radiusChanged)
public:
    explicit MessageImage(QQuickItem *parent = nullptr);

    QString source() const { return m_source; }
    void setSource(const QString &source);
    bool valid() const { return !m_image.isNull(); }
    QSizeF maximumSize() const { return m_maximumSize; }
    void setMaximumSize(const QSizeF &size);
    qreal radius() const { return m_radius; }
    void setRadius(qreal radius);

    void paint(QPainter *painter) override;

    // The bytes after the first comma, read as base64, as an image; null when any step fails.
    static QImage decode(const QString &dataURL);
    // The image's size scaled, up or down, to fit inside the bounds with its proportions.
    static QSizeF fitted(const QSize &imageSize, const QSizeF &bounds);

signals:
    void sourceChanged();
    void maximumSizeChanged();
    void radiusChanged();

private:
    void updateImplicitSize();

    QString m_source;
    QImage m_image;
    QSizeF m_maximumSize{260, 200};
    qreal m_radius = 10;
};
