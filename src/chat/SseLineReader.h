#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// Splits a byte stream into text lines as they complete. LF, CR and CR LF each end
// a line; a CR at the end of one chunk and an LF at the start of the next count once.
class SseLineReader {
public:
    // The lines completed by this chunk, in order.
    QStringList feed(const QByteArray &chunk);
    // The last line when the stream ended without a line break; empty otherwise.
    QStringList finish();

private:
    QByteArray m_pending;
    bool m_lastWasCarriageReturn = false;
};
