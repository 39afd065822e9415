#include "LocalModel.h"

#include "ByteCountText.h"
#include "StrictJson.h"

#include <QLocale>
#include <QStringList>
#include <algorithm>
#include <limits>

namespace {

// The engine takes contexts up to this many tokens whatever the model was trained with.
constexpr qint64 alwaysTakenContext = 4096;

// A detail of the header: its value when the member is there with the right type.
std::optional<QString> detailText(const QJsonObject &object, const QString &key)
{
    const QJsonValue value = object.value(key);
    return value.isString() ? std::optional<QString>(value.toString()) : std::nullopt;
}

std::optional<qint64> detailCount(const QJsonObject &object, const QString &key)
{
    const auto count = StrictJson::integerValue(object.value(key));
    return count && *count > 0 ? count : std::nullopt;
}

} // namespace

std::optional<LocalModel> LocalModel::fromJson(const QJsonValue &value)
{
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject object = value.toObject();
    const auto name = StrictJson::text(object, QStringLiteral("name"));
    const auto size = StrictJson::integer(object, QStringLiteral("size"));
    const auto projector = StrictJson::boolean(object, QStringLiteral("projector"));
    if (!name || !size || !projector)
        return std::nullopt;
    return LocalModel{*name,
                      *size,
                      *projector,
                      detailText(object, QStringLiteral("architecture")),
                      detailCount(object, QStringLiteral("context_length")),
                      detailCount(object, QStringLiteral("parameters")),
                      detailText(object, QStringLiteral("quantization")),
                      detailCount(object, QStringLiteral("kv_bytes_per_token"))};
}

QJsonObject LocalModel::toJson() const
{
    QJsonObject object{
        {QStringLiteral("name"), name},
        {QStringLiteral("size"), size},
        {QStringLiteral("projector"), projector},
    };
    if (architecture)
        object.insert(QStringLiteral("architecture"), *architecture);
    if (contextLength)
        object.insert(QStringLiteral("context_length"), *contextLength);
    if (parameters)
        object.insert(QStringLiteral("parameters"), *parameters);
    if (quantization)
        object.insert(QStringLiteral("quantization"), *quantization);
    if (kvBytesPerToken)
        object.insert(QStringLiteral("kv_bytes_per_token"), *kvBytesPerToken);
    return object;
}

QString LocalModel::title() const
{
    QString title = name;
    title.remove(QStringLiteral(".gguf"));
    title.replace(QLatin1Char('-'), QLatin1Char(' '));
    return title;
}

QString LocalModel::sizeLabel() const
{
    if (size < 1)
        return QStringLiteral("Source file missing");
    return byteCountText(size);
}

QString LocalModel::detailsLabel() const
{
    QStringList parts;
    if (architecture && !architecture->isEmpty())
        parts.append(*architecture);
    if (parameters)
        parts.append(parameterCountText(*parameters));
    if (quantization && !quantization->isEmpty())
        parts.append(*quantization);
    if (contextLength)
        parts.append(contextLengthText(*contextLength) + QStringLiteral(" context"));
    return parts.join(QStringLiteral(" \u00b7 "));
}

qint64 LocalModel::loadContext(qint64 choice) const
{
    if (choice <= 0 || !contextLength || choice <= alwaysTakenContext || choice <= *contextLength)
        return std::max<qint64>(choice, 0);
    return 0;
}

std::optional<qint64> LocalModel::contextFor(qint64 choice) const
{
    const qint64 asked = loadContext(choice);
    if (asked > 0)
        return asked;
    if (!contextLength)
        return std::nullopt;
    return *contextLength;
}

QString LocalModel::kvCacheLabel(qint64 choice) const
{
    const auto context = contextFor(choice);
    if (projector || !kvBytesPerToken || !context)
        return {};
    // Past what a 64-bit count holds the header is not to be believed.
    if (*kvBytesPerToken > std::numeric_limits<qint64>::max() / *context)
        return {};
    return QStringLiteral("KV cache for %1 context: %2")
        .arg(contextLengthText(*context), byteCountText(*kvBytesPerToken * *context));
}

QString contextLengthText(qint64 tokens)
{
    constexpr qint64 kilo = 1024;
    if (tokens > 0 && tokens % (kilo * kilo) == 0)
        return QString::number(tokens / (kilo * kilo)) + QLatin1Char('M');
    if (tokens > 0 && tokens % kilo == 0)
        return QString::number(tokens / kilo) + QLatin1Char('K');
    return groupedNumberText(tokens);
}

QString parameterCountText(qint64 parameters)
{
    struct Unit {
        double size;
        char letter;
    };
    for (const Unit unit : {Unit{1e12, 'T'}, Unit{1e9, 'B'}, Unit{1e6, 'M'}, Unit{1e3, 'K'}}) {
        const double value = static_cast<double>(parameters) / unit.size;
        // 9.96 rounds to "10", not "10.0".
        if (value >= 1 && value < 9.95)
            return QString::asprintf("%.1f%c", value, unit.letter);
        if (value >= 9.95)
            return QString::asprintf("%.0f%c", value, unit.letter);
    }
    return QString::number(parameters);
}

QString groupedNumberText(qint64 number)
{
    static const QLocale english(QLocale::English, QLocale::UnitedStates);
    return english.toString(number);
}
