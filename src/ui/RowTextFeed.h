#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>

class QAbstractItemModel;

// Follows one role of one row of a list model for a view that shows it, so the text
// goes from the model to the view in C++ only. It says when the view is due to show
// the text again: at once for any change, but text that only grew waits for the next
// frame, so a reply that grows per token is shown at most once a frame.
class RowTextFeed : public QObject {
    Q_OBJECT
public:
    explicit RowTextFeed(QObject *parent = nullptr);

    // How long grown text may wait: one frame of a 60 Hz display.
    static constexpr int growInterval = 16;

    QAbstractItemModel *model() const { return m_model; }
    void setModel(QAbstractItemModel *model);
    int row() const { return m_row; }
    void setRow(int row);
    QByteArray role() const { return m_role; }
    void setRole(const QByteArray &role);

    // The text in the model now; empty for a row that is not there.
    QString text() const;
    // The view showed text: a change that extends it may wait.
    void setShown(const QString &text);

signals:
    // Time to show text() again.
    void due();

private:
    void modelDataChanged(const QModelIndex &topLeft, const QModelIndex &bottomRight, const QList<int> &roles);
    void textChanged();
    void findRoleNumber();

    QPointer<QAbstractItemModel> m_model;
    int m_row = -1;
    QByteArray m_role;
    int m_roleNumber = -1;
    QString m_shown;
    QTimer m_grow;
};
