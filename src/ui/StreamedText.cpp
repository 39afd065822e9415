#include "StreamedText.h"

#include <QAbstractItemModel>
#include <QTextCursor>
#include <QTextDocument>

StreamedText::StreamedText(QObject *parent) : QObject(parent)
{
    m_append.setSingleShot(true);
    m_append.setTimerType(Qt::PreciseTimer);
    m_append.setInterval(appendInterval);
    connect(&m_append, &QTimer::timeout, this, &StreamedText::show);
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
    if (m_model == model)
        return;
    if (m_model)
        m_model->disconnect(this);
    m_model = model;
    if (m_model) {
        connect(m_model, &QAbstractItemModel::dataChanged, this, &StreamedText::modelDataChanged);
        connect(m_model, &QAbstractItemModel::modelReset, this, &StreamedText::textChanged);
        connect(m_model, &QAbstractItemModel::rowsInserted, this, &StreamedText::textChanged);
        connect(m_model, &QAbstractItemModel::rowsRemoved, this, &StreamedText::textChanged);
        connect(m_model, &QAbstractItemModel::rowsMoved, this, &StreamedText::textChanged);
    }
    findRoleNumber();
    show();
    emit modelChanged();
}

void StreamedText::setRow(int row)
{
    if (m_row == row)
        return;
    m_row = row;
    show();
    emit rowChanged();
}

void StreamedText::setRole(const QByteArray &role)
{
    if (m_role == role)
        return;
    m_role = role;
    findRoleNumber();
    show();
    emit roleChanged();
}

void StreamedText::modelDataChanged(const QModelIndex &topLeft, const QModelIndex &bottomRight, const QList<int> &roles)
{
    if (m_row < topLeft.row() || m_row > bottomRight.row())
        return;
    if (!roles.isEmpty() && !roles.contains(m_roleNumber))
        return;
    textChanged();
}

void StreamedText::textChanged()
{
    const QString text = modelText();
    if (!m_shown.isEmpty() && text.size() > m_shown.size() && text.startsWith(m_shown)) {
        if (!m_append.isActive())
            m_append.start();
        return;
    }
    show();
}

void StreamedText::show()
{
    m_append.stop();
    if (!m_textDocument)
        return;
    const QString text = modelText();
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

QString StreamedText::modelText() const
{
    if (!m_model || m_row < 0 || m_row >= m_model->rowCount())
        return {};
    return m_model->data(m_model->index(m_row, 0), m_roleNumber).toString();
}

void StreamedText::findRoleNumber()
{
    m_roleNumber = m_model ? m_model->roleNames().key(m_role, -1) : -1;
}
