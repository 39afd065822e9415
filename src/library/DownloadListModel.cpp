#include "DownloadListModel.h"

#include <algorithm>

int DownloadListModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : count();
}

QVariant DownloadListModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= count())
        return {};
    const DownloadState &download = m_downloads.at(index.row());
    switch (role) {
    case Qt::DisplayRole:
    case NameRole:
        return download.name;
    case BytesRole:
        return download.bytes;
    case TotalRole:
        return download.total;
    case FractionRole:
        return download.fraction();
    case ReceivedLabelRole:
        return download.receivedLabel();
    default:
        return {};
    }
}

QHash<int, QByteArray> DownloadListModel::roleNames() const
{
    return {{NameRole, "name"},
            {BytesRole, "bytes"},
            {TotalRole, "total"},
            {FractionRole, "fraction"},
            {ReceivedLabelRole, "receivedLabel"}};
}

void DownloadListModel::update(const QList<DownloadState> &downloads)
{
    const bool sameNames = downloads.size() == m_downloads.size()
        && std::equal(downloads.begin(), downloads.end(), m_downloads.begin(),
                      [](const DownloadState &a, const DownloadState &b) { return a.name == b.name; });
    if (!sameNames) {
        beginResetModel();
        m_downloads = downloads;
        endResetModel();
        emit countChanged();
        return;
    }
    for (int row = 0; row < downloads.size(); ++row) {
        if (downloads.at(row).bytes == m_downloads.at(row).bytes
            && downloads.at(row).total == m_downloads.at(row).total)
            continue;
        m_downloads[row] = downloads.at(row);
        emit dataChanged(index(row), index(row));
    }
}
