#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <optional>

// One download the engine is running.
struct DownloadState {
    QString name;
    qint64 bytes = 0;
    qint64 total = 0;

    static std::optional<DownloadState> fromJson(const QJsonValue &value);
    QJsonObject toJson() const;

    // Share of the file received, 0 to 1; 0 while the total is unknown.
    double fraction() const;
    // The received amount, e.g. "500 bytes downloaded".
    QString receivedLabel() const;
};
