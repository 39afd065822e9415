// The selected conversation as plain text.
#include "engine/EngineStore.h"

#include <QFileInfo>
#include <QSaveFile>

QString EngineStore::exportText() const
{
    // Images are left out: a message gives only its role and text.
    QStringList blocks;
    for (const ChatMessage &message : messages())
        blocks.append(message.role.toUpper() + QLatin1Char('\n') + message.text);
    return blocks.join(QStringLiteral("\n\n"));
}

void EngineStore::exportChat()
{
    if (!m_fileChooser)
        return;
    std::optional<QString> path = m_fileChooser->chooseFileToSave(QStringLiteral("Vorn conversation.txt"));
    if (!path || path->isEmpty())
        return;
    // The file is plain text: a name typed without an extension gets one.
    if (QFileInfo(*path).suffix().isEmpty())
        *path += QLatin1Char('.') + QString::fromUtf16(FileChooser::textExtension);

    // Written beside the target and moved over it at the end, so a failure leaves
    // no partial file and an existing file is replaced whole.
    QSaveFile file(*path);
    const QByteArray bytes = exportText().toUtf8();
    const bool written = file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.commit();
    // An unfinished file is discarded when it goes out of scope.
    if (!written) {
        setError(QStringLiteral("The conversation could not be saved to %1: %2.")
                     .arg(QChar(0x201C) + QFileInfo(*path).fileName() + QChar(0x201D), file.errorString()));
    }
}
