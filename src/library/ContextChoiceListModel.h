#pragma once

#include <QAbstractListModel>
#include <QList>
#include <optional>

// The contexts a model can be loaded with, for the library's picker: fixed sizes and
// the model's maximum (0 tokens). Sizes above both the loaded model's trained context
// and the default (which every model loads with) are not available.
class ContextChoiceListModel : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ count CONSTANT)
public:
    enum Role { LabelRole = Qt::UserRole + 1, TokensRole, AvailableRole };

    explicit ContextChoiceListModel(QObject *parent = nullptr);

    // The choice a fresh install starts with: what loads always asked for.
    static constexpr int defaultTokens = 4096;
    static const QList<int> &choices();

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;
    int count() const { return static_cast<int>(choices().size()); }

    // The row of a choice, or -1.
    static int rowOf(int tokens);
    bool available(int tokens) const;
    // The loaded model's trained context; none without a model or when its header
    // does not tell.
    void setTrainedContext(std::optional<qint64> tokens);

private:
    std::optional<qint64> m_trainedContext;
};
