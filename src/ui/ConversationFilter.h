#pragma once

#include "engine/EngineStore.h"

#include <QPointer>
#include <QSortFilterProxyModel>
#include <QtQml/qqmlregistration.h>

struct Conversation;

// The sidebar's conversation list narrowed by the search text: a conversation stays
// when its title, or failing that one of its messages, contains the text in any case.
// The store's order is kept; an empty search keeps everything.
class ConversationFilter : public QSortFilterProxyModel {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(EngineStore *engineStore READ store WRITE setStore NOTIFY storeChanged)
    Q_PROPERTY(QString search READ search WRITE setSearch NOTIFY searchChanged)
    Q_PROPERTY(int count READ count NOTIFY countChanged)
public:
    explicit ConversationFilter(QObject *parent = nullptr);

    EngineStore *store() const { return m_store; }
    void setStore(EngineStore *store);
    QString search() const { return m_search; }
    void setSearch(const QString &search);
    int count() const { return rowCount(); }

    static bool matches(const Conversation &conversation, const QString &search);

signals:
    void storeChanged();
    void searchChanged();
    void countChanged();

protected:
    bool filterAcceptsRow(int sourceRow, const QModelIndex &sourceParent) const override;

private:
    QPointer<EngineStore> m_store;
    QString m_search;
};
