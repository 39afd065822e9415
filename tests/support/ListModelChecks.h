#pragma once

#include <QAbstractItemModelTester>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QVariant>
#include <memory>
#include <vector>

class EngineStore;

// Watches a list model the way a view depends on it, and stops the test process at
// the first broken promise: Qt's QAbstractItemModelTester in its fatal mode, and, for
// a model that keeps its own rows, a check that what it shows does not change before
// it announces the change (at every "about to" signal the rows are still those of the
// last announced state).
class ListModelChecks : public QObject {
    Q_OBJECT
public:
    enum class Kind { OwnRows, Proxy };

    explicit ListModelChecks(QAbstractItemModel *model, Kind kind = Kind::OwnRows, QObject *parent = nullptr);

private:
    using Rows = QList<QMap<int, QVariant>>;

    Rows read() const;
    void remember();
    void verifyUnchanged(const char *signal) const;

    QPointer<QAbstractItemModel> m_model;
    QAbstractItemModelTester *m_tester;
    Rows m_rows;
};

// The checks on every list model of a store: conversations, messages, models and
// downloads; a view's own proxy of them can be added.
class StoreListModelChecks {
public:
    explicit StoreListModelChecks(EngineStore &store);
    void addProxy(QAbstractItemModel *proxy);

private:
    std::vector<std::unique_ptr<ListModelChecks>> m_checks;
};
