#pragma once

#include <QAbstractListModel>

class EngineStore;

// The selected conversation's messages for the transcript. A streamed token changes
// one row's text, nothing else.
class MessageListModel : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)
    Q_PROPERTY(QString lastText READ lastText NOTIFY lastTextChanged)
public:
    enum Role { IdRole = Qt::UserRole + 1, RoleRole, TextRole, ImageRole, HasImageRole, IsUserRole, HasTextRole };

    explicit MessageListModel(EngineStore *store);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;
    int count() const { return rowCount(); }
    // The last message's text, empty when there is none.
    QString lastText() const;

    // Called by the store.
    // Around a change of the selected conversation: the rows are replaced whole.
    void beginSelectionChange();
    void finishSelectionChange();
    void beginAppend(int index);
    void finishAppend();
    void messageTextChanged(int index);

signals:
    void countChanged();
    void lastTextChanged();

private:
    EngineStore *m_store;
};
