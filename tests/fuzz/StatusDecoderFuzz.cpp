// Any bytes as an engine status: decoding either fails or gives a record that encodes
// and decodes back to the same members.
#include "model/EngineState.h"

#include <QJsonDocument>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    const auto state = EngineState::decode(bytes);
    if (!state)
        return 0;
    const auto again = EngineState::decode(QJsonDocument(state->toJson()).toJson(QJsonDocument::Compact));
    if (!again || again->models.size() != state->models.size() || again->ctx != state->ctx
        || again->loaded != state->loaded || again->downloads.size() != state->downloads.size())
        std::abort();
    for (const LocalModel &model : state->models) {
        (void)model.title();
        (void)model.sizeLabel();
    }
    return 0;
}
