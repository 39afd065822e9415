#include "EngineState.h"

#include "StrictJson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>

namespace {

template <typename Record>
std::optional<QList<Record>> decodeArray(const QJsonObject &object, const QString &key)
{
    const QJsonValue value = object.value(key);
    if (!value.isArray())
        return std::nullopt;
    const QJsonArray array = value.toArray();
    QList<Record> records;
    records.reserve(array.size());
    for (const QJsonValue &element : array) {
        auto record = Record::fromJson(element);
        if (!record)
            return std::nullopt;
        records.append(std::move(*record));
    }
    return records;
}

template <typename Record>
QJsonArray encodeArray(const QList<Record> &records)
{
    QJsonArray array;
    for (const Record &record : records)
        array.append(record.toJson());
    return array;
}

QJsonValue optionalTextValue(const std::optional<QString> &text)
{
    return text ? QJsonValue(*text) : QJsonValue(QJsonValue::Null);
}

} // namespace

std::optional<EngineState> EngineState::fromJson(const QJsonValue &value)
{
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject object = value.toObject();
    const auto version = StrictJson::text(object, QStringLiteral("version"));
    const auto dir = StrictJson::text(object, QStringLiteral("dir"));
    const auto loaded = StrictJson::optionalText(object, QStringLiteral("loaded"));
    const auto backend = StrictJson::optionalText(object, QStringLiteral("backend"));
    const auto ctx = StrictJson::integer(object, QStringLiteral("ctx"));
    const auto vision = StrictJson::boolean(object, QStringLiteral("vision"));
    if (!version || !dir || !loaded || !backend || !ctx || !vision)
        return std::nullopt;
    auto models = decodeArray<LocalModel>(object, QStringLiteral("models"));
    if (!models)
        return std::nullopt;
    auto downloads = decodeArray<DownloadState>(object, QStringLiteral("downloads"));
    if (!downloads)
        return std::nullopt;
    const auto last = RunMetrics::fromJson(object.value(QStringLiteral("last")));
    if (!last)
        return std::nullopt;
    return EngineState{*version, *dir, *loaded, *backend, *ctx, *vision, std::move(*models), std::move(*downloads),
                       *last};
}

std::optional<EngineState> EngineState::decode(const QByteArray &json)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    return fromJson(document.object());
}

QJsonObject EngineState::toJson() const
{
    return QJsonObject{
        {QStringLiteral("version"), version},
        {QStringLiteral("dir"), dir},
        {QStringLiteral("loaded"), optionalTextValue(loaded)},
        {QStringLiteral("backend"), optionalTextValue(backend)},
        {QStringLiteral("ctx"), ctx},
        {QStringLiteral("vision"), vision},
        {QStringLiteral("models"), encodeArray(models)},
        {QStringLiteral("downloads"), encodeArray(downloads)},
        {QStringLiteral("last"), last.toJson()},
    };
}
