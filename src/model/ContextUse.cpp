#include "ContextUse.h"

#include "StrictJson.h"

namespace {

std::optional<ContextUse> checked(std::optional<qint64> tokens, std::optional<qint64> size,
                                  std::optional<qint64> dropped)
{
    if (!tokens || !size || !dropped || *tokens < 0 || *size <= 0 || *dropped < 0)
        return std::nullopt;
    return ContextUse{*tokens, *size, *dropped};
}

} // namespace

std::optional<ContextUse> ContextUse::fromCount(const QJsonObject &object)
{
    return checked(StrictJson::integer(object, QStringLiteral("tokens")),
                   StrictJson::integer(object, QStringLiteral("size")),
                   StrictJson::integer(object, QStringLiteral("dropped_messages")));
}

std::optional<ContextUse> ContextUse::fromReply(const QJsonObject &object)
{
    const QJsonValue usage = object.value(QStringLiteral("usage"));
    const QJsonValue context = object.value(QStringLiteral("context"));
    if (!usage.isObject() || !context.isObject())
        return std::nullopt;
    return checked(StrictJson::integer(usage.toObject(), QStringLiteral("total_tokens")),
                   StrictJson::integer(context.toObject(), QStringLiteral("size")),
                   StrictJson::integer(context.toObject(), QStringLiteral("dropped_messages")));
}
