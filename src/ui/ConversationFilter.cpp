#include "ConversationFilter.h"

#include "model/Conversation.h"

namespace {

// Case-folded UTF-8. Most text is ASCII, where folding is lowering A to Z; anything
// else takes the full Unicode folding.
QByteArray fold(const QString &text)
{
    QByteArray bytes = text.toUtf8();
    for (char &byte : bytes) {
        if (static_cast<unsigned char>(byte) >= 0x80)
            return text.toCaseFolded().toUtf8();
        if (byte >= 'A' && byte <= 'Z')
            byte = static_cast<char>(byte + ('a' - 'A'));
    }
    return bytes;
}

// The zero byte ends every text in the folded form, so a search that holds one could
// match across texts; such a search is checked text by text instead.
bool containsPerText(const Conversation &conversation, const QString &search)
{
    if (conversation.title.contains(search, Qt::CaseInsensitive))
        return true;
    for (const ChatMessage &message : conversation.messages) {
        if (message.text.contains(search, Qt::CaseInsensitive))
            return true;
    }
    return false;
}

} // namespace

ConversationFilter::ConversationFilter(QObject *parent) : QSortFilterProxyModel(parent)
{
    // Titles and texts change while a reply streams; a row is checked again then.
    setDynamicSortFilter(true);
    connect(this, &QAbstractItemModel::rowsInserted, this, &ConversationFilter::countChanged);
    connect(this, &QAbstractItemModel::rowsRemoved, this, &ConversationFilter::countChanged);
    connect(this, &QAbstractItemModel::modelReset, this, &ConversationFilter::countChanged);
    connect(this, &QAbstractItemModel::layoutChanged, this, &ConversationFilter::countChanged);
}

void ConversationFilter::setConversations(ConversationListModel *conversations)
{
    if (m_conversations == conversations)
        return;
    if (m_conversations)
        m_conversations->disconnect(this);
    forgetAll();
    m_conversations = conversations;
    if (conversations) {
        // Connected before the proxy's own handlers, so a changed row is folded again
        // before it is checked.
        connect(conversations, &QAbstractItemModel::dataChanged, this, &ConversationFilter::forgetRows);
        connect(conversations, &QAbstractItemModel::modelAboutToBeReset, this, &ConversationFilter::forgetAll);
        connect(conversations, &QAbstractItemModel::rowsAboutToBeRemoved, this, &ConversationFilter::forgetAll);
    }
    setSourceModel(conversations);
    emit conversationsChanged();
    emit countChanged();
}

void ConversationFilter::setSearch(const QString &search)
{
    if (m_search == search)
        return;
    const QByteArray folded = fold(search);
    // What did not contain the old text cannot contain a text that includes it.
    if (m_foldedSearch.isEmpty() || !folded.contains(m_foldedSearch))
        m_rejected.clear();
    m_search = search;
    m_foldedSearch = folded;
    invalidateFilter();
    emit searchChanged();
    emit countChanged();
}

bool ConversationFilter::matches(const Conversation &conversation, const QString &search)
{
    if (search.isEmpty())
        return true;
    if (search.contains(QChar(0)))
        return containsPerText(conversation, search);
    return foldedText(conversation).contains(fold(search));
}

QByteArray ConversationFilter::foldedText(const Conversation &conversation)
{
    QByteArray text = fold(conversation.title);
    text.append('\0');
    for (const ChatMessage &message : conversation.messages) {
        text.append(fold(message.text));
        text.append('\0');
    }
    return text;
}

void ConversationFilter::prepare()
{
    if (!m_conversations)
        return;
    for (const Conversation &conversation : m_conversations->conversations())
        cachedFoldedText(conversation);
}

int ConversationFilter::rowOf(const QString &conversationId) const
{
    for (int row = 0; row < rowCount(); ++row) {
        if (idAt(row) == conversationId)
            return row;
    }
    return -1;
}

QString ConversationFilter::idAt(int row) const
{
    return row < 0 || row >= rowCount() ? QString() : index(row, 0).data(ConversationListModel::IdRole).toString();
}

const QByteArray &ConversationFilter::cachedFoldedText(const Conversation &conversation) const
{
    auto found = m_folded.find(conversation.id);
    if (found == m_folded.end())
        found = m_folded.insert(conversation.id, foldedText(conversation));
    return *found;
}

bool ConversationFilter::filterAcceptsRow(int sourceRow, const QModelIndex &) const
{
    if (m_search.isEmpty())
        return true;
    if (!m_conversations || sourceRow < 0 || sourceRow >= m_conversations->count())
        return false;
    const Conversation &conversation = m_conversations->conversations().at(sourceRow);
    if (m_search.contains(QChar(0)))
        return containsPerText(conversation, m_search);
    if (m_rejected.contains(conversation.id))
        return false;
    if (cachedFoldedText(conversation).contains(m_foldedSearch))
        return true;
    m_rejected.insert(conversation.id);
    return false;
}

void ConversationFilter::forgetRows(const QModelIndex &first, const QModelIndex &last)
{
    if (!m_conversations)
        return;
    const auto &conversations = m_conversations->conversations();
    for (int row = first.row(); row <= last.row() && row < conversations.size(); ++row) {
        if (row < 0)
            continue;
        m_folded.remove(conversations.at(row).id);
        m_rejected.remove(conversations.at(row).id);
    }
}

void ConversationFilter::forgetAll()
{
    m_folded.clear();
    m_rejected.clear();
}
