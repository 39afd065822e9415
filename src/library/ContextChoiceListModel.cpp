#include "ContextChoiceListModel.h"

#include <algorithm>

ContextChoiceListModel::ContextChoiceListModel(QObject *parent) : QAbstractListModel(parent) {}

const QList<int> &ContextChoiceListModel::choices()
{
    static const QList<int> all{2048, 4096, 8192, 16384, 32768, 65536, 131072, 0};
    return all;
}

int ContextChoiceListModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : count();
}

QVariant ContextChoiceListModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= count())
        return {};
    const int tokens = choices().at(index.row());
    switch (role) {
    case Qt::DisplayRole:
    case LabelRole:
        return tokens == 0 ? QStringLiteral("Model maximum") : QString::number(tokens);
    case TokensRole:
        return tokens;
    case AvailableRole:
        return available(tokens);
    default:
        return {};
    }
}

QHash<int, QByteArray> ContextChoiceListModel::roleNames() const
{
    return {{LabelRole, "label"}, {TokensRole, "tokens"}, {AvailableRole, "available"}};
}

int ContextChoiceListModel::rowOf(int tokens)
{
    return static_cast<int>(choices().indexOf(tokens));
}

bool ContextChoiceListModel::available(int tokens) const
{
    // The engine loads every model with the default context, also one trained with less.
    return tokens == 0 || !m_trainedContext || tokens <= std::max<qint64>(*m_trainedContext, defaultTokens);
}

void ContextChoiceListModel::setTrainedContext(std::optional<qint64> tokens)
{
    if (m_trainedContext == tokens)
        return;
    m_trainedContext = tokens;
    emit dataChanged(index(0), index(count() - 1), {AvailableRole});
}
