#pragma once

#include "model/Conversation.h"

#include <QList>
#include <QString>

// A history that looks like real use for the benchmarks: varied words in every message,
// replies of ordinary length, and one rare word in a few conversations so a search has
// something to find deep inside them.
namespace SampleHistory {

// The rare word; it is in the last reply of one conversation in a hundred.
inline const QString rareWord = QStringLiteral("lighthouse");

QList<Conversation> make(int conversations, int messages);

} // namespace SampleHistory
