#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <optional>

// Typed reads of required JSON members. Each returns nothing when the member is
// missing or of the wrong type, so a decoder can fail as a whole on the first miss.
namespace StrictJson {

std::optional<QString> text(const QJsonObject &object, const QString &key);
std::optional<qint64> integer(const QJsonObject &object, const QString &key);
std::optional<double> number(const QJsonObject &object, const QString &key);
std::optional<bool> boolean(const QJsonObject &object, const QString &key);

// Missing or null gives an empty optional inside a successful read; any other
// non-text value fails the read.
std::optional<std::optional<QString>> optionalText(const QJsonObject &object, const QString &key);
// The same for a boolean.
std::optional<std::optional<bool>> optionalBoolean(const QJsonObject &object, const QString &key);

// A number that a 64-bit signed integer holds exactly: 4096 and 4096.0 pass, 1.5 fails.
std::optional<qint64> integerValue(const QJsonValue &value);

} // namespace StrictJson
