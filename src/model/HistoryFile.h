#pragma once

#include "Conversation.h"

#include <QList>
#include <QString>
#include <optional>

// The chat history on disk: one JSON array of conversations. Reading and writing are
// best-effort and silent; a write replaces the file atomically and leaves it 0600.
namespace HistoryFile {

// "Vorn" in the application data folder, where the history lives; it stops the
// process when there is no data folder at all.
QString defaultFolder();

// Creates the history folder (0700) if needed; failures are ignored.
void prepareFolder(const QString &folder);

// The decoded list, or nothing when the file is missing, unreadable or not a valid history.
std::optional<QList<Conversation>> load(const QString &file);
std::optional<QList<Conversation>> decode(const QByteArray &json);

// A history that exists but cannot be read is overwritten by the next save; before that,
// its bytes are copied beside it as <file>.unreadable-<date and time> (0600), so nothing
// the user had is lost. Returns the copy's path, or nothing when the file is empty,
// missing or could not be copied.
std::optional<QString> keepUnreadableCopy(const QString &file);

QByteArray encode(const QList<Conversation> &conversations);
// Returns whether the bytes reached the disk; callers are free to ignore it.
bool save(const QString &file, const QList<Conversation> &conversations);

} // namespace HistoryFile
