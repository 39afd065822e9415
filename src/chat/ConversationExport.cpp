#include "ConversationExport.h"

#include "engine/FileChooser.h"

#include <QFileInfo>
#include <QSaveFile>
#include <QStringList>

namespace ConversationExport {

QString text(const QList<ChatMessage> &messages)
{
    QStringList blocks;
    for (const ChatMessage &message : messages)
        blocks.append(message.role.toUpper() + QLatin1Char('\n') + message.text);
    return blocks.join(QStringLiteral("\n\n"));
}

std::optional<QString> save(FileChooser &chooser, const QList<ChatMessage> &messages)
{
    std::optional<QString> path = chooser.chooseFileToSave(QStringLiteral("Vorn conversation.txt"));
    if (!path || path->isEmpty())
        return std::nullopt;
    // The file is plain text: a name typed without an extension gets one.
    if (QFileInfo(*path).suffix().isEmpty())
        *path += QLatin1Char('.') + QString::fromUtf16(FileChooser::textExtension);

    // Written beside the target and moved over it at the end, so a failure leaves
    // no partial file and an existing file is replaced whole.
    QSaveFile file(*path);
    const QByteArray bytes = text(messages).toUtf8();
    const bool written = file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.commit();
    // An unfinished file is discarded when it goes out of scope.
    if (written)
        return std::nullopt;
    return QStringLiteral("The conversation could not be saved to %1: %2.")
        .arg(QChar(0x201C) + QFileInfo(*path).fileName() + QChar(0x201D), file.errorString());
}

} // namespace ConversationExport
