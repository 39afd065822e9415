#include "MarkdownSegmentList.h"

#include "MarkdownParser.h"

#include <QRegularExpression>

MarkdownSegmentList::MarkdownSegmentList(QObject *parent) : QAbstractListModel(parent)
{
    m_feed.setRole("answer");
    connect(&m_feed, &RowTextFeed::due, this, &MarkdownSegmentList::show);
}

int MarkdownSegmentList::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(m_segments.size());
}

QVariant MarkdownSegmentList::data(const QModelIndex &index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    const MarkdownSegment &segment = m_segments.at(index.row());
    switch (role) {
    case IsCodeRole:
        return segment.kind == MarkdownSegment::Kind::Code;
    case UnitsRole:
        return QVariant::fromValue(segment.units);
    case LanguageRole:
        return segment.language;
    case CodeRole:
        return segment.code;
    case IndentRole:
        return segment.indent;
    default:
        return {};
    }
}

QHash<int, QByteArray> MarkdownSegmentList::roleNames() const
{
    return {{IsCodeRole, "isCode"},
            {UnitsRole, "units"},
            {LanguageRole, "language"},
            {CodeRole, "code"},
            {IndentRole, "indent"}};
}

void MarkdownSegmentList::setModel(QAbstractItemModel *model)
{
    if (m_feed.model() == model)
        return;
    m_feed.setModel(model);
    emit modelChanged();
}

void MarkdownSegmentList::setRow(int row)
{
    if (m_feed.row() == row)
        return;
    m_feed.setRow(row);
    emit rowChanged();
}

void MarkdownSegmentList::setRole(const QByteArray &role)
{
    if (m_feed.role() == role)
        return;
    m_feed.setRole(role);
    emit roleChanged();
}

void MarkdownSegmentList::setStreaming(bool streaming)
{
    if (m_streaming == streaming)
        return;
    m_streaming = streaming;
    show();
    emit streamingChanged();
}

QString MarkdownSegmentList::streamedPart(const QString &text)
{
    const qsizetype lineStart = text.lastIndexOf(QLatin1Char('\n')) + 1;
    static const QRegularExpression fenceStart(QStringLiteral("^ {0,3}(`{1,2}|~{1,2})$"));
    if (fenceStart.match(QStringView(text).sliced(lineStart)).hasMatch())
        return text.first(lineStart);
    return text;
}

QString MarkdownSegmentList::codeAt(int row) const
{
    return row >= 0 && row < m_segments.size() ? m_segments.at(row).code : QString();
}

void MarkdownSegmentList::show()
{
    const QString text = m_feed.text();
    m_feed.setShown(text);
    if (text == m_shown && m_streaming == m_shownStreaming)
        return;
    m_shown = text;
    m_shownStreaming = m_streaming;
    showSegments(MarkdownParser::parse(m_streaming ? streamedPart(text) : text));
    emit shownTextChanged();
}

void MarkdownSegmentList::showSegments(const QList<MarkdownSegment> &segments)
{
    const qsizetype kept = std::min(segments.size(), m_segments.size());
    if (segments.size() < m_segments.size()) {
        beginRemoveRows({}, static_cast<int>(kept), static_cast<int>(m_segments.size() - 1));
        m_segments.resize(kept);
        endRemoveRows();
    }
    for (qsizetype row = 0; row < kept; ++row) {
        if (m_segments.at(row) == segments.at(row))
            continue;
        // A segment that turns from prose into code (or back) is made again.
        if (m_segments.at(row).kind != segments.at(row).kind) {
            beginRemoveRows({}, static_cast<int>(row), static_cast<int>(row));
            m_segments.removeAt(row);
            endRemoveRows();
            beginInsertRows({}, static_cast<int>(row), static_cast<int>(row));
            m_segments.insert(row, segments.at(row));
            endInsertRows();
            continue;
        }
        m_segments[row] = segments.at(row);
        const QModelIndex changed = index(static_cast<int>(row));
        emit dataChanged(changed, changed);
    }
    if (segments.size() > m_segments.size()) {
        beginInsertRows({}, static_cast<int>(m_segments.size()), static_cast<int>(segments.size() - 1));
        m_segments.append(segments.sliced(m_segments.size()));
        endInsertRows();
    }
}
