#include "RowTextFeed.h"

#include <QAbstractItemModel>

#include <algorithm>

RowTextFeed::RowTextFeed(QObject *parent) : QObject(parent)
{
    m_grow.setSingleShot(true);
    m_grow.setTimerType(Qt::PreciseTimer);
    connect(&m_grow, &QTimer::timeout, this, &RowTextFeed::due);
}

void RowTextFeed::setModel(QAbstractItemModel *model)
{
    if (m_model == model)
        return;
    if (m_model)
        m_model->disconnect(this);
    m_model = model;
    if (m_model) {
        connect(m_model, &QAbstractItemModel::dataChanged, this, &RowTextFeed::modelDataChanged);
        connect(m_model, &QAbstractItemModel::modelReset, this, &RowTextFeed::textChanged);
        connect(m_model, &QAbstractItemModel::rowsInserted, this, &RowTextFeed::textChanged);
        connect(m_model, &QAbstractItemModel::rowsRemoved, this, &RowTextFeed::textChanged);
        connect(m_model, &QAbstractItemModel::rowsMoved, this, &RowTextFeed::textChanged);
    }
    findRoleNumber();
    emit due();
}

void RowTextFeed::setRow(int row)
{
    if (m_row == row)
        return;
    m_row = row;
    emit due();
}

void RowTextFeed::setRole(const QByteArray &role)
{
    if (m_role == role)
        return;
    m_role = role;
    findRoleNumber();
    emit due();
}

QString RowTextFeed::text() const
{
    if (!m_model || m_row < 0 || m_row >= m_model->rowCount())
        return {};
    return m_model->data(m_model->index(m_row, 0), m_roleNumber).toString();
}

void RowTextFeed::setShown(const QString &text)
{
    m_grow.stop();
    m_shown = text;
    m_sinceShown.start();
}

void RowTextFeed::modelDataChanged(const QModelIndex &topLeft, const QModelIndex &bottomRight, const QList<int> &roles)
{
    if (m_row < topLeft.row() || m_row > bottomRight.row())
        return;
    if (!roles.isEmpty() && !roles.contains(m_roleNumber))
        return;
    textChanged();
}

void RowTextFeed::textChanged()
{
    const QString text = this->text();
    if (!m_shown.isEmpty() && text.size() > m_shown.size() && text.startsWith(m_shown)) {
        if (!m_grow.isActive()) {
            const qint64 since = m_sinceShown.isValid() ? m_sinceShown.elapsed() : growInterval;
            m_grow.start(static_cast<int>(std::max<qint64>(0, growInterval - since)));
        }
        return;
    }
    emit due();
}

void RowTextFeed::findRoleNumber()
{
    m_roleNumber = m_model ? m_model->roleNames().key(m_role, -1) : -1;
}
