#include "ModelImport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

QString quoted(const QString &name)
{
    return QChar(0x201C) + name + QChar(0x201D);
}

std::optional<QString> linkOne(const QString &folder, const QString &source)
{
    const QString sourcePath = QDir::cleanPath(QFileInfo(source).absoluteFilePath());
    const QString fileName = QFileInfo(sourcePath).fileName();
    const QString target = QDir::cleanPath(QDir(folder).absoluteFilePath(fileName));

    // Picked from inside the models folder itself: it is already there.
    if (target == sourcePath)
        return std::nullopt;

    // Follows links: a live link counts, a link whose source is gone does not.
    if (QFileInfo::exists(target))
        return ModelImport::duplicateMessage(fileName);

    // What is left at the target can only be a dead link; make room for the new one.
    if (QFileInfo(target).isSymLink()) {
        QFile deadLink(target);
        if (!deadLink.remove())
            return QStringLiteral("The old link to %1 could not be removed: %2.")
                .arg(quoted(fileName), deadLink.errorString());
    }

    QFile sourceFile(sourcePath);
    if (!sourceFile.link(target))
        return QStringLiteral("%1 could not be added to your library: %2.")
            .arg(quoted(fileName), sourceFile.errorString());
    return std::nullopt;
}

} // namespace

namespace ModelImport {

std::optional<QString> linkInto(const QString &folder, const QStringList &sources)
{
    for (const QString &source : sources) {
        if (auto failure = linkOne(folder, source))
            return failure;
    }
    return std::nullopt;
}

QString duplicateMessage(const QString &fileName)
{
    return QStringLiteral("A model named ") + fileName + QStringLiteral(" is already in your library.");
}

} // namespace ModelImport
