#include "MarkdownSegmentList.h"

#include "MarkdownParser.h"

#include <QRegularExpression>

MarkdownSegmentList::MarkdownSegmentList(QObject *parent) : QAbstractListModel(parent)
{
    m_parse.setSingleShot(true);
    m_parse.setTimerType(Qt::PreciseTimer);
    m_parse.setInterval(parseInterval);
    connect(&m_parse, &QTimer::timeout, this, &MarkdownSegmentList::show);
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
    if (m_model == model)
        return;
    if (m_model)
        m_model->disconnect(this);
    m_model = model;
    if (m_model) {
        connect(m_model, &QAbstractItemModel::dataChanged, this, &MarkdownSegmentList::modelDataChanged);
        connect(m_model, &QAbstractItemModel::modelReset, this, &MarkdownSegmentList::textChanged);
        connect(m_model, &QAbstractItemModel::rowsInserted, this, &MarkdownSegmentList::textChanged);
        connect(m_model, &QAbstractItemModel::rowsRemoved, this, &MarkdownSegmentList::textChanged);
        connect(m_model, &QAbstractItemModel::rowsMoved, this, &MarkdownSegmentList::textChanged);
    }
    findRoleNumber();
    show();
    emit modelChanged();
}

void MarkdownSegmentList::setRow(int row)
{
    if (m_row == row)
        return;
    m_row = row;
    show();
    emit rowChanged();
}

void MarkdownSegmentList::setRole(const QByteArray &role)
{
    if (m_role == role)
        return;
    m_role = role;
    findRoleNumber();
    show();
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

void MarkdownSegmentList::modelDataChanged(const QModelIndex &topLeft, const QModelIndex &bottomRight,
                                           const QList<int> &roles)
{
    if (m_row < topLeft.row() || m_row > bottomRight.row())
        return;
    if (!roles.isEmpty() && !roles.contains(m_roleNumber))
        return;
    textChanged();
}

void MarkdownSegmentList::textChanged()
{
    const QString text = modelText();
    if (!m_shown.isEmpty() && text.size() > m_shown.size() && text.startsWith(m_shown)) {
        if (!m_parse.isActive())
            m_parse.start();
        return;
    }
    show();
}

void MarkdownSegmentList::show()
{
    m_parse.stop();
    const QString text = modelText();
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

QString MarkdownSegmentList::modelText() const
{
    if (!m_model || m_row < 0 || m_row >= m_model->rowCount())
        return {};
    return m_model->data(m_model->index(m_row, 0), m_roleNumber).toString();
}

void MarkdownSegmentList::findRoleNumber()
{
    m_roleNumber = m_model ? m_model->roleNames().key(m_role, -1) : -1;
}
