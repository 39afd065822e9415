#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <optional>

// One GGUF file in the models folder, as the engine lists it.
struct LocalModel {
    QString name;
    qint64 size = 0;
    bool projector = false;

    static std::optional<LocalModel> fromJson(const QJsonValue &value);
    QJsonObject toJson() const;

    QString id() const { return name; }
    // The name without ".gguf" and with dashes as spaces: "my-model-Q4.gguf" is "my model Q4".
    QString title() const;
    // "Source file missing" for a dangling entry, otherwise the file-style byte count.
    QString sizeLabel() const;
};
