#include "StreamedText.h"

#include <QAbstractItemModel>
#include <QTextCursor>
#include <QTextDocument>

StreamedText::StreamedText(QObject *parent) : QObject(parent)
{
    m_feed.setRole("text");
    connect(&m_feed, &RowTextFeed::due, this, &StreamedText::show);
}

void StreamedText::setDocument(QQuickTextDocument *document)
{
    if (m_document == document)
        return;
    m_document = document;
    m_textDocument = document ? document->textDocument() : nullptr;
    if (m_textDocument)
        // The view never edits its text; an undo history would only grow with the reply.
        m_textDocument->setUndoRedoEnabled(false);
    m_shown.clear();
    show();
    emit documentChanged();
}

void StreamedText::setModel(QAbstractItemModel *model)
{
    if (m_feed.model() == model)
        return;
    m_feed.setModel(model);
    emit modelChanged();
}

void StreamedText::setRow(int row)
{
    if (m_feed.row() == row)
        return;
    m_feed.setRow(row);
    emit rowChanged();
}

void StreamedText::setRole(const QByteArray &role)
{
    if (m_feed.role() == role)
        return;
    m_feed.setRole(role);
    emit roleChanged();
}

void StreamedText::show()
{
    if (!m_textDocument)
        return;
    const QString text = m_feed.text();
    m_feed.setShown(text);
    if (text == m_shown)
        return;
    if (!m_shown.isEmpty() && text.size() > m_shown.size() && text.startsWith(m_shown)) {
        QTextCursor cursor(m_textDocument);
        cursor.movePosition(QTextCursor::End);
        cursor.insertText(text.sliced(m_shown.size()));
    } else {
        m_textDocument->setPlainText(text);
    }
    m_shown = text;
}
