#pragma once

#include "model/ChatMessage.h"

#include <QList>
#include <QString>
#include <optional>

class FileChooser;

// A conversation written out as plain text.
namespace ConversationExport {

// Each message as its role in capitals and its text; images are left out.
QString text(const QList<ChatMessage> &messages);

// Asks where to save and writes the text there. Returns the message to show when the
// file could not be written; nothing when it was written or the user cancelled.
std::optional<QString> save(FileChooser &chooser, const QList<ChatMessage> &messages);

} // namespace ConversationExport
