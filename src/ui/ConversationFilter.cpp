#include "ConversationFilter.h"

#include "chat/ConversationListModel.h"
#include "model/Conversation.h"

ConversationFilter::ConversationFilter(QObject *parent) : QSortFilterProxyModel(parent)
{
    // Titles and texts change while a reply streams; a row is checked again then.
    setDynamicSortFilter(true);
    connect(this, &QAbstractItemModel::rowsInserted, this, &ConversationFilter::countChanged);
    connect(this, &QAbstractItemModel::rowsRemoved, this, &ConversationFilter::countChanged);
    connect(this, &QAbstractItemModel::modelReset, this, &ConversationFilter::countChanged);
    connect(this, &QAbstractItemModel::layoutChanged, this, &ConversationFilter::countChanged);
}

void ConversationFilter::setStore(EngineStore *store)
{
    if (m_store == store)
        return;
    m_store = store;
    setSourceModel(store ? store->conversationList() : nullptr);
    emit storeChanged();
    emit countChanged();
}

void ConversationFilter::setSearch(const QString &search)
{
    if (m_search == search)
        return;
    m_search = search;
    invalidateFilter();
    emit searchChanged();
    emit countChanged();
}

bool ConversationFilter::matches(const Conversation &conversation, const QString &search)
{
    if (search.isEmpty())
        return true;
    if (conversation.title.contains(search, Qt::CaseInsensitive))
        return true;
    for (const ChatMessage &message : conversation.messages) {
        if (message.text.contains(search, Qt::CaseInsensitive))
            return true;
    }
    return false;
}

bool ConversationFilter::filterAcceptsRow(int sourceRow, const QModelIndex &) const
{
    if (m_search.isEmpty())
        return true;
    if (!m_store || sourceRow < 0 || sourceRow >= m_store->conversations().size())
        return false;
    return matches(m_store->conversations().at(sourceRow), m_search);
}
