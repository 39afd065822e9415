#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>

class QAbstractItemModel;

// Follows one role of one row of a list model for a view that shows it, so the text
// goes from the model to the view in C++ only. It says when the view is due to show
// the text again: at once for any change, but text that only grew is shown at most
// once a frame. Growth after a quiet frame goes out with the next turn of the event
// loop (the rest of a burst of tokens joins it); growth sooner than that waits only
// for the rest of the frame since the text was last shown, so frames follow the reply
// at the display's pace and not a frame behind it.
class RowTextFeed : public QObject {
    Q_OBJECT
public:
    explicit RowTextFeed(QObject *parent = nullptr);

    // The least time between two showings of grown text: one frame of a 60 Hz display.
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
    // Milliseconds until grown text is due, or -1 when nothing waits.
    int growthDueIn() const { return m_grow.isActive() ? m_grow.remainingTime() : -1; }

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
    QElapsedTimer m_sinceShown;
    QTimer m_grow;
};
