#pragma once

#include "MarkdownDocumentWriter.h"
#include "MarkdownSegment.h"

#include <QColor>
#include <QObject>
#include <QPointer>
#include <QQmlParserStatus>
#include <QQuickTextDocument>
#include <QVariant>
#include <QtQml/qqmlregistration.h>
#include <memory>

// Shows a run of a reply's prose (a segment's units) in a TextEdit's document, in the
// theme's colours. New units replace only those that differ, so while a reply grows
// only its last block is laid out again.
class MarkdownProse : public QObject, public QQmlParserStatus {
    Q_OBJECT
    Q_INTERFACES(QQmlParserStatus)
    QML_ELEMENT
    Q_PROPERTY(QQuickTextDocument *document READ document WRITE setDocument NOTIFY documentChanged)
    Q_PROPERTY(QVariant units READ units WRITE setUnits NOTIFY unitsChanged)
    Q_PROPERTY(QColor textColor MEMBER m_textColor WRITE setTextColor NOTIFY styleChanged)
    Q_PROPERTY(QColor secondaryColor MEMBER m_secondaryColor WRITE setSecondaryColor NOTIFY styleChanged)
    Q_PROPERTY(QColor linkColor MEMBER m_linkColor WRITE setLinkColor NOTIFY styleChanged)
    Q_PROPERTY(QColor codeFill MEMBER m_codeFill WRITE setCodeFill NOTIFY styleChanged)
    Q_PROPERTY(QColor hairline MEMBER m_hairline WRITE setHairline NOTIFY styleChanged)
    Q_PROPERTY(QString monospaceFamily MEMBER m_monospaceFamily WRITE setMonospaceFamily NOTIFY styleChanged)
public:
    using QObject::QObject;
    ~MarkdownProse() override;

    QQuickTextDocument *document() const { return m_document; }
    void setDocument(QQuickTextDocument *document);
    QVariant units() const { return QVariant::fromValue(m_units); }
    void setUnits(const QVariant &units);
    void setTextColor(const QColor &color);
    void setSecondaryColor(const QColor &color);
    void setLinkColor(const QColor &color);
    void setCodeFill(const QColor &color);
    void setHairline(const QColor &color);
    void setMonospaceFamily(const QString &family);

    // Opens a clicked link in the browser, when it is one the prose gave an anchor.
    Q_INVOKABLE bool openLink(const QString &link) const;

signals:
    void documentChanged();
    void unitsChanged();
    void styleChanged();

public:
    void classBegin() override {}
    void componentComplete() override;

private:
    template <typename Value>
    void setStyle(Value &member, const Value &value);
    void restyle();
    void show();

    QPointer<QQuickTextDocument> m_document;
    QList<MarkdownUnit> m_units;
    QColor m_textColor = Qt::black;
    QColor m_secondaryColor = Qt::gray;
    QColor m_linkColor = Qt::blue;
    QColor m_codeFill = Qt::lightGray;
    QColor m_hairline = Qt::gray;
    QString m_monospaceFamily = QStringLiteral("DejaVu Sans Mono");
    std::unique_ptr<MarkdownDocumentWriter> m_writer;
    // Style changes in one turn of the event loop write the prose once.
    bool m_restylePending = false;
    bool m_complete = false;
};
