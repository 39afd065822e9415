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
    // What the file's header states; each is absent when the header does not give it
    // or the engine does not report it.
    std::optional<QString> architecture;
    std::optional<qint64> contextLength; // the context the model was trained with
    std::optional<qint64> parameters;
    std::optional<QString> quantization;
    std::optional<qint64> kvBytesPerToken; // the KV cache of one token

    // "name", "size" and "projector" are required; the header's details are read when
    // present with their type and ignored otherwise, as an older engine sends none.
    static std::optional<LocalModel> fromJson(const QJsonValue &value);
    QJsonObject toJson() const;

    QString id() const { return name; }
    // The name without ".gguf" and with dashes as spaces: "my-model-Q4.gguf" is "my model Q4".
    QString title() const;
    // "Source file missing" for a dangling entry, otherwise the file-style byte count.
    QString sizeLabel() const;
    // "llama · 1.1B · Q4_0 · 128K context": the details the header gives; empty without.
    QString detailsLabel() const;

    // The context a load asks for with this choice (0: the model's maximum): the
    // choice, or 0 when the model takes less (the engine then uses the trained
    // context; it always takes up to 4096 tokens).
    qint64 loadContext(qint64 choice) const;
    // The context that load gives, in tokens, when the header tells.
    std::optional<qint64> contextFor(qint64 choice) const;
    // "KV cache for 4K context: 88 MB"; empty when the header does not tell.
    QString kvCacheLabel(qint64 choice) const;

    bool operator==(const LocalModel &) const = default;
};

// "4K", "128K", "1M" for whole multiples of 1024; other counts with thousands
// separators ("8,000").
QString contextLengthText(qint64 tokens);
// "1.1B", "13B", "293K": one decimal below ten of a unit, whole above.
QString parameterCountText(qint64 parameters);
// "2,310": a count with thousands separators.
QString groupedNumberText(qint64 number);
