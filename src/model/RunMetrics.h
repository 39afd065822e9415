#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <optional>

// Figures of the engine's most recent generation.
struct RunMetrics {
    double decode_tps = 0;
    double prefill_tps = 0;
    qint64 prompt_tokens = 0;
    qint64 completion_tokens = 0;

    static std::optional<RunMetrics> fromJson(const QJsonValue &value);
    QJsonObject toJson() const;
};
