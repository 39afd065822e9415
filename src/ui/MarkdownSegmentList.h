#pragma once

#include "MarkdownSegment.h"
#include "RowTextFeed.h"

#include <QAbstractListModel>
#include <QtQml/qqmlregistration.h>

// One reply's Markdown as a list of segments (runs of prose, code blocks) for the
// message view, fed from one row of the message list in C++ like StreamedText. While a
// reply grows it is parsed again at most once a frame; segments that stay the same are
// not touched, so only the one being written is shown again.
class MarkdownSegmentList : public QAbstractListModel {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QAbstractItemModel *model READ model WRITE setModel NOTIFY modelChanged)
    Q_PROPERTY(int row READ row WRITE setRow NOTIFY rowChanged)
    Q_PROPERTY(QByteArray role READ role WRITE setRole NOTIFY roleChanged)
    // While the reply streams, a line that may still become a code fence waits.
    Q_PROPERTY(bool streaming READ streaming WRITE setStreaming NOTIFY streamingChanged)
    // The text the segments show now, as written; read on demand.
    Q_PROPERTY(QString shownText READ shownText NOTIFY shownTextChanged)
public:
    enum Role { IsCodeRole = Qt::UserRole + 1, UnitsRole, LanguageRole, CodeRole, IndentRole };

    explicit MarkdownSegmentList(QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    QAbstractItemModel *model() const { return m_feed.model(); }
    void setModel(QAbstractItemModel *model);
    int row() const { return m_feed.row(); }
    void setRow(int row);
    QByteArray role() const { return m_feed.role(); }
    void setRole(const QByteArray &role);
    bool streaming() const { return m_streaming; }
    void setStreaming(bool streaming);
    QString shownText() const { return m_shown; }
    // A code block's code, exactly as fenced; empty for a row that is not one.
    Q_INVOKABLE QString codeAt(int row) const;

    // The text as parsed while it streams: a last line that could open a fence but is
    // not complete ("`", "``") is held back.
    static QString streamedPart(const QString &text);

signals:
    void modelChanged();
    void rowChanged();
    void roleChanged();
    void streamingChanged();
    void shownTextChanged();

private:
    void show();
    void showSegments(const QList<MarkdownSegment> &segments);

    RowTextFeed m_feed;
    bool m_streaming = false;
    QString m_shown;
    bool m_shownStreaming = false;
    QList<MarkdownSegment> m_segments;
};
