#pragma once

#include <QObject>
#include <QPointer>
#include <QQuickTextDocument>
#include <QtQml/qqmlregistration.h>

class QTextDocument;

// Adds fixed extra space between the lines of a TextEdit's document (a TextEdit has
// no line height of its own). Every block gets it again whenever the text changes.
class TextLineSpacing : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QQuickTextDocument *document READ document WRITE setDocument NOTIFY documentChanged)
    Q_PROPERTY(qreal spacing READ spacing WRITE setSpacing NOTIFY spacingChanged)
public:
    using QObject::QObject;

    QQuickTextDocument *document() const { return m_document; }
    void setDocument(QQuickTextDocument *document);
    qreal spacing() const { return m_spacing; }
    void setSpacing(qreal spacing);

signals:
    void documentChanged();
    void spacingChanged();

private:
    void apply(int position, int length);

    QPointer<QQuickTextDocument> m_document;
    QPointer<QTextDocument> m_textDocument;
    qreal m_spacing = 0;
    bool m_applying = false;
};
