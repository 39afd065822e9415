#include "DownloadState.h"

#include "ByteCountText.h"
#include "StrictJson.h"

std::optional<DownloadState> DownloadState::fromJson(const QJsonValue &value)
{
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject object = value.toObject();
    const auto name = StrictJson::text(object, QStringLiteral("name"));
    const auto bytes = StrictJson::integer(object, QStringLiteral("bytes"));
    const auto total = StrictJson::integer(object, QStringLiteral("total"));
    if (!name || !bytes || !total)
        return std::nullopt;
    return DownloadState{*name, *bytes, *total};
}

QJsonObject DownloadState::toJson() const
{
    return QJsonObject{
        {QStringLiteral("name"), name},
        {QStringLiteral("bytes"), bytes},
        {QStringLiteral("total"), total},
    };
}

double DownloadState::fraction() const
{
    if (total < 1)
        return 0;
    return static_cast<double>(bytes) / static_cast<double>(total);
}

QString DownloadState::receivedLabel() const
{
    return byteCountText(bytes) + QStringLiteral(" downloaded");
}
