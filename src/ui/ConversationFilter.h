#pragma once

#include "chat/ConversationListModel.h"

#include <QByteArray>
#include <QHash>
#include <QPointer>
#include <QSet>
#include <QSortFilterProxyModel>
#include <QUuid>
#include <QtQml/qqmlregistration.h>

struct Conversation;

// The sidebar's conversation list narrowed by the search text: a conversation stays
// when its title, or failing that one of its messages, contains the text in any case.
// The list's order is kept; an empty search keeps everything.
//
// A keystroke must filter a large history within a few milliseconds, so each
// conversation's text is case-folded once (as UTF-8) and kept until it changes, and a
// search that extends the previous one only looks again at what still matched.
class ConversationFilter : public QSortFilterProxyModel {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(
        ConversationListModel *conversations READ conversations WRITE setConversations NOTIFY conversationsChanged)
    Q_PROPERTY(QString search READ search WRITE setSearch NOTIFY searchChanged)
    Q_PROPERTY(int count READ count NOTIFY countChanged)
public:
    explicit ConversationFilter(QObject *parent = nullptr);

    ConversationListModel *conversations() const { return m_conversations; }
    void setConversations(ConversationListModel *conversations);
    QString search() const { return m_search; }
    void setSearch(const QString &search);
    int count() const { return rowCount(); }
    // Folds every conversation's text now, ahead of a search (the search field has the
    // focus), so that no keystroke pays for it.
    Q_INVOKABLE void prepare();
    // The row that lists a conversation (-1 when none does), and a row's conversation.
    Q_INVOKABLE int rowOf(const QString &conversationId) const;
    Q_INVOKABLE QString idAt(int row) const;

    static bool matches(const Conversation &conversation, const QString &search);
    // Title and messages, case-folded, as UTF-8, each followed by a zero byte.
    static QByteArray foldedText(const Conversation &conversation);

signals:
    void conversationsChanged();
    void searchChanged();
    void countChanged();

protected:
    bool filterAcceptsRow(int sourceRow, const QModelIndex &sourceParent) const override;

private:
    void forgetRows(const QModelIndex &first, const QModelIndex &last);
    void forgetAll();
    const QByteArray &cachedFoldedText(const Conversation &conversation) const;

    QPointer<ConversationListModel> m_conversations;
    QString m_search;
    QByteArray m_foldedSearch;
    mutable QHash<QUuid, QByteArray> m_folded;
    // Conversations known not to contain m_search; they cannot contain a longer search
    // that includes it either.
    mutable QSet<QUuid> m_rejected;
};
