#pragma once

#include <QAbstractListModel>

class EngineStore;

// The store's conversations as a list for the sidebar, in store order.
class ConversationListModel : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)
public:
    enum Role { IdRole = Qt::UserRole + 1, TitleRole, SelectedRole };

    explicit ConversationListModel(EngineStore *store);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;
    int count() const { return rowCount(); }

    // Called by the store after it changed its list.
    void conversationChanged(int index, const QList<int> &roles = {});
    void selectionMoved(int previousIndex, int currentIndex);
    void beginInsert(int index);
    void finishInsert();

signals:
    void countChanged();

private:
    EngineStore *m_store;
};
