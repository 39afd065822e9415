#pragma once

#include "RowTextFeed.h"

#include <QObject>
#include <QPointer>
#include <QQuickTextDocument>
#include <QtQml/qqmlregistration.h>

class QAbstractItemModel;
class QTextDocument;

// Keeps a TextEdit's document in step with one message of the message list. The text
// goes from the model to the document in C++ only: reading a long reply into script
// once per token made the script heap collect garbage every few tokens, which showed
// as pauses of 100 ms while streaming. A reply that grows is appended to the document
// at most once per frame, so only its last paragraph is laid out again; any other
// change replaces the document's text at once. The model itself changes per token.
class StreamedText : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QQuickTextDocument *document READ document WRITE setDocument NOTIFY documentChanged)
    Q_PROPERTY(QAbstractItemModel *model READ model WRITE setModel NOTIFY modelChanged)
    Q_PROPERTY(int row READ row WRITE setRow NOTIFY rowChanged)
    Q_PROPERTY(QByteArray role READ role WRITE setRole NOTIFY roleChanged)
public:
    explicit StreamedText(QObject *parent = nullptr);

    // How long appended text may wait: one frame of a 60 Hz display.
    static constexpr int appendInterval = RowTextFeed::growInterval;

    QQuickTextDocument *document() const { return m_document; }
    void setDocument(QQuickTextDocument *document);
    QAbstractItemModel *model() const { return m_feed.model(); }
    void setModel(QAbstractItemModel *model);
    int row() const { return m_feed.row(); }
    void setRow(int row);
    QByteArray role() const { return m_feed.role(); }
    void setRole(const QByteArray &role);

signals:
    void documentChanged();
    void modelChanged();
    void rowChanged();
    void roleChanged();

private:
    // Takes the model's text now: appends what is new or replaces what differs.
    void show();

    QPointer<QQuickTextDocument> m_document;
    QPointer<QTextDocument> m_textDocument;
    RowTextFeed m_feed;
    // What the document holds, as taken from the model.
    QString m_shown;
};
