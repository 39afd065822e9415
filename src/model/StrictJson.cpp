#include "StrictJson.h"

#include <cmath>

namespace StrictJson {

std::optional<QString> text(const QJsonObject &object, const QString &key)
{
    const QJsonValue value = object.value(key);
    if (!value.isString())
        return std::nullopt;
    return value.toString();
}

std::optional<qint64> integerValue(const QJsonValue &value)
{
    if (!value.isDouble())
        return std::nullopt;
    // Integers written without a fraction keep their full 64-bit value.
    constexpr qint64 notAnInteger = std::numeric_limits<qint64>::min();
    const qint64 exact = value.toInteger(notAnInteger);
    if (exact != notAnInteger)
        return exact;
    const double number = value.toDouble();
    if (!std::isfinite(number) || std::trunc(number) != number)
        return std::nullopt;
    // 2^63 itself does not fit; -2^63 does.
    if (number >= 9223372036854775808.0 || number < -9223372036854775808.0)
        return std::nullopt;
    return static_cast<qint64>(number);
}

std::optional<qint64> integer(const QJsonObject &object, const QString &key)
{
    return integerValue(object.value(key));
}

std::optional<double> number(const QJsonObject &object, const QString &key)
{
    const QJsonValue value = object.value(key);
    if (!value.isDouble())
        return std::nullopt;
    return value.toDouble();
}

std::optional<bool> boolean(const QJsonObject &object, const QString &key)
{
    const QJsonValue value = object.value(key);
    if (!value.isBool())
        return std::nullopt;
    return value.toBool();
}

std::optional<std::optional<QString>> optionalText(const QJsonObject &object, const QString &key)
{
    const QJsonValue value = object.value(key);
    if (value.isUndefined() || value.isNull())
        return std::optional<QString>();
    if (!value.isString())
        return std::nullopt;
    return std::optional<QString>(value.toString());
}

std::optional<std::optional<bool>> optionalBoolean(const QJsonObject &object, const QString &key)
{
    const QJsonValue value = object.value(key);
    if (value.isUndefined() || value.isNull())
        return std::optional<bool>();
    if (!value.isBool())
        return std::nullopt;
    return std::optional<bool>(value.toBool());
}

} // namespace StrictJson
