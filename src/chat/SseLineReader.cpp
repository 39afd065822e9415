#include "SseLineReader.h"

QStringList SseLineReader::feed(const QByteArray &chunk)
{
    QStringList lines;
    for (const char byte : chunk) {
        if (byte == '\n' && m_lastWasCarriageReturn) {
            m_lastWasCarriageReturn = false;
            continue;
        }
        m_lastWasCarriageReturn = byte == '\r';
        if (byte == '\n' || byte == '\r') {
            lines.append(QString::fromUtf8(m_pending));
            m_pending.clear();
            continue;
        }
        m_pending.append(byte);
    }
    return lines;
}

QStringList SseLineReader::finish()
{
    m_lastWasCarriageReturn = false;
    if (m_pending.isEmpty())
        return {};
    QStringList lines{QString::fromUtf8(m_pending)};
    m_pending.clear();
    return lines;
}
