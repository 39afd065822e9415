// Any bytes as a history file: decoding either fails or round-trips through encoding.
#include "model/HistoryFile.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    const auto conversations = HistoryFile::decode(bytes);
    if (!conversations)
        return 0;
    const auto again = HistoryFile::decode(HistoryFile::encode(*conversations));
    if (!again || again->size() != conversations->size())
        std::abort();
    for (qsizetype index = 0; index < again->size(); ++index) {
        const Conversation &before = conversations->at(index);
        const Conversation &after = again->at(index);
        if (before.id != after.id || before.title != after.title || before.messages.size() != after.messages.size())
            std::abort();
        for (const ChatMessage &message : before.messages)
            (void)message.payload();
    }
    return 0;
}
