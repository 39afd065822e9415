#include "ListModelChecks.h"

#include "chat/ConversationListModel.h"
#include "chat/MessageListModel.h"
#include "engine/EngineStore.h"
#include "library/ContextChoiceListModel.h"
#include "library/DownloadListModel.h"
#include "library/LocalModelListModel.h"

#include <QDebug>

ListModelChecks::ListModelChecks(QAbstractItemModel *model, Kind kind, QObject *parent)
    : QObject(parent),
      m_model(model),
      m_tester(new QAbstractItemModelTester(model, QAbstractItemModelTester::FailureReportingMode::Fatal, this))
{
    // A proxy reads its source, which has changed by the time the proxy announces
    // what follows from it; only the tester applies there.
    if (kind == Kind::Proxy)
        return;
    remember();
    // Announced beginnings: nothing may have changed yet.
    connect(model, &QAbstractItemModel::modelAboutToBeReset, this, [this] { verifyUnchanged("modelAboutToBeReset"); });
    connect(model, &QAbstractItemModel::rowsAboutToBeInserted, this,
            [this] { verifyUnchanged("rowsAboutToBeInserted"); });
    connect(model, &QAbstractItemModel::rowsAboutToBeRemoved, this,
            [this] { verifyUnchanged("rowsAboutToBeRemoved"); });
    connect(model, &QAbstractItemModel::rowsAboutToBeMoved, this, [this] { verifyUnchanged("rowsAboutToBeMoved"); });
    connect(model, &QAbstractItemModel::layoutAboutToBeChanged, this,
            [this] { verifyUnchanged("layoutAboutToBeChanged"); });
    // Announced ends: what is shown now is the new state.
    connect(model, &QAbstractItemModel::modelReset, this, &ListModelChecks::remember);
    connect(model, &QAbstractItemModel::layoutChanged, this, &ListModelChecks::remember);
    connect(model, &QAbstractItemModel::rowsInserted, this, &ListModelChecks::remember);
    connect(model, &QAbstractItemModel::rowsRemoved, this, &ListModelChecks::remember);
    connect(model, &QAbstractItemModel::rowsMoved, this, &ListModelChecks::remember);
    connect(model, &QAbstractItemModel::dataChanged, this, [this](const QModelIndex &first, const QModelIndex &last) {
        const Rows now = read();
        for (int row = first.row(); row <= last.row() && row < m_rows.size() && row < now.size(); ++row)
            m_rows[row] = now.at(row);
    });
}

ListModelChecks::Rows ListModelChecks::read() const
{
    Rows rows;
    if (!m_model)
        return rows;
    const QList<int> roles = m_model->roleNames().keys();
    for (int row = 0; row < m_model->rowCount(); ++row) {
        QMap<int, QVariant> values;
        const QModelIndex index = m_model->index(row, 0);
        for (const int role : roles)
            values.insert(role, m_model->data(index, role));
        rows.append(values);
    }
    return rows;
}

void ListModelChecks::remember()
{
    m_rows = read();
}

void ListModelChecks::verifyUnchanged(const char *signal) const
{
    const Rows now = read();
    if (now == m_rows)
        return;
    QString shown;
    QDebug(&shown) << "before:" << m_rows << "now:" << now;
    qFatal("%s changed before it emitted %s: %s", m_model->metaObject()->className(), signal, qPrintable(shown));
}

StoreListModelChecks::StoreListModelChecks(EngineStore &store)
{
    for (QAbstractItemModel *model :
         {static_cast<QAbstractItemModel *>(store.conversationList()),
          static_cast<QAbstractItemModel *>(store.messageList()), static_cast<QAbstractItemModel *>(store.modelList()),
          static_cast<QAbstractItemModel *>(store.downloadList()),
          static_cast<QAbstractItemModel *>(store.contextChoices())})
        m_checks.push_back(std::make_unique<ListModelChecks>(model));
}

void StoreListModelChecks::addProxy(QAbstractItemModel *proxy)
{
    m_checks.push_back(std::make_unique<ListModelChecks>(proxy, ListModelChecks::Kind::Proxy));
}
