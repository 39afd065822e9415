#include "TextLineSpacing.h"

#include <QTextBlockFormat>
#include <QTextCursor>
#include <QTextDocument>

void TextLineSpacing::setDocument(QQuickTextDocument *document)
{
    if (m_document == document)
        return;
    if (m_textDocument)
        m_textDocument->disconnect(this);
    m_document = document;
    m_textDocument = document ? document->textDocument() : nullptr;
    if (m_textDocument) {
        connect(m_textDocument, &QTextDocument::contentsChange, this,
                [this](int position, int, int added) { apply(position, added); });
        apply(0, m_textDocument->characterCount());
    }
    emit documentChanged();
}

void TextLineSpacing::setSpacing(qreal spacing)
{
    if (qFuzzyCompare(m_spacing, spacing))
        return;
    m_spacing = spacing;
    if (m_textDocument)
        apply(0, m_textDocument->characterCount());
    emit spacingChanged();
}

void TextLineSpacing::apply(int position, int length)
{
    if (m_applying || !m_textDocument)
        return;
    m_applying = true;
    QTextCursor cursor(m_textDocument);
    cursor.setPosition(qBound(0, position, m_textDocument->characterCount() - 1));
    cursor.setPosition(qBound(0, position + length, m_textDocument->characterCount() - 1), QTextCursor::KeepAnchor);
    QTextBlockFormat format;
    format.setLineHeight(m_spacing, QTextBlockFormat::LineDistanceHeight);
    cursor.mergeBlockFormat(format);
    m_applying = false;
}
