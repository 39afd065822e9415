// Any bytes, cut into chunks at any places, give the same lines as read in one piece,
// and no line ever holds a line break.
#include "chat/SseLineReader.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    // The first byte picks the chunk size, the rest is the stream.
    const qsizetype chunk = (data[0] % 16) + 1;
    const QByteArray stream(reinterpret_cast<const char *>(data + 1), static_cast<qsizetype>(size - 1));

    SseLineReader whole;
    QStringList expected = whole.feed(stream);
    expected += whole.finish();

    SseLineReader pieces;
    QStringList lines;
    for (qsizetype offset = 0; offset < stream.size(); offset += chunk)
        lines += pieces.feed(stream.mid(offset, chunk));
    lines += pieces.finish();

    if (lines != expected)
        std::abort();
    for (const QString &line : lines) {
        if (line.contains(QLatin1Char('\n')) || line.contains(QLatin1Char('\r')))
            std::abort();
    }
    return 0;
}
