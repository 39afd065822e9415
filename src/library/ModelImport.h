#pragma once

#include <QString>
#include <QStringList>
#include <optional>

// Puts the user's own GGUF files into the models folder as symbolic links. Files are
// never copied or moved, and each link keeps its source's file name.
namespace ModelImport {

// Links each source into folder, in order. A source that already is the file in the
// folder is skipped. Stops at the first failure and returns its message; links made
// before it stay in place.
std::optional<QString> linkInto(const QString &folder, const QStringList &sources);

QString duplicateMessage(const QString &fileName);

} // namespace ModelImport
