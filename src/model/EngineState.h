#pragma once

#include "DownloadState.h"
#include "LocalModel.h"
#include "RunMetrics.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <optional>

// The engine's whole condition, as its status call reports it.
struct EngineState {
    QString version;
    QString dir;
    std::optional<QString> loaded;
    std::optional<QString> backend;
    qint64 ctx = 0;
    bool vision = false;
    QList<LocalModel> models;
    QList<DownloadState> downloads;
    RunMetrics last;

    // Strict: any missing or mistyped member, at any depth, fails the whole status.
    static std::optional<EngineState> fromJson(const QJsonValue &value);
    static std::optional<EngineState> decode(const QByteArray &json);
    QJsonObject toJson() const;
};
