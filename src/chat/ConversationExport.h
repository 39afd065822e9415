#pragma once

#include "model/ChatMessage.h"

#include <QList>
#include <QString>
#include <optional>

class FileChooser;

// A conversation written out as plain text or as Markdown.
namespace ConversationExport {

// What is written: the conversation's title, the system prompt it is sent with (empty
// when none), and its messages.
struct Content {
    QString title;
    QString system;
    QList<ChatMessage> messages;
};

// Each message as its role in capitals and its text, after a SYSTEM block when there
// is a system prompt; images are left out.
QString plainText(const Content &content);
// The title, then a heading per speaker with the text as it is; an image is noted.
QString markdown(const Content &content);

// Asks where to save, and in which format, and writes the file there. Returns the
// message to show when the file could not be written; nothing when it was written or
// the user cancelled.
std::optional<QString> save(FileChooser &chooser, const Content &content);

} // namespace ConversationExport
