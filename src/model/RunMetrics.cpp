#include "RunMetrics.h"

#include "StrictJson.h"

std::optional<RunMetrics> RunMetrics::fromJson(const QJsonValue &value)
{
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject object = value.toObject();
    const auto decode = StrictJson::number(object, QStringLiteral("decode_tps"));
    const auto prefill = StrictJson::number(object, QStringLiteral("prefill_tps"));
    const auto promptTokens = StrictJson::integer(object, QStringLiteral("prompt_tokens"));
    const auto completionTokens = StrictJson::integer(object, QStringLiteral("completion_tokens"));
    if (!decode || !prefill || !promptTokens || !completionTokens)
        return std::nullopt;
    return RunMetrics{*decode, *prefill, *promptTokens, *completionTokens};
}

QJsonObject RunMetrics::toJson() const
{
    return QJsonObject{
        {QStringLiteral("decode_tps"), decode_tps},
        {QStringLiteral("prefill_tps"), prefill_tps},
        {QStringLiteral("prompt_tokens"), prompt_tokens},
        {QStringLiteral("completion_tokens"), completion_tokens},
    };
}
