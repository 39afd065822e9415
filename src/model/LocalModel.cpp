#include "LocalModel.h"

#include "ByteCountText.h"
#include "StrictJson.h"

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
    return LocalModel{*name, *size, *projector};
}

QJsonObject LocalModel::toJson() const
{
    return QJsonObject{
        {QStringLiteral("name"), name},
        {QStringLiteral("size"), size},
        {QStringLiteral("projector"), projector},
    };
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
