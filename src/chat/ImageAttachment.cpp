// Attaching one image to the next message.
#include "engine/EngineStore.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QMimeDatabase>

namespace {

constexpr qint64 largestImageBytes = 30 * 1024 * 1024;

QString readFailureMessage(const QString &path, const QString &reason)
{
    return QStringLiteral("The image %1 could not be read: %2.")
        .arg(QChar(0x201C) + QFileInfo(path).fileName() + QChar(0x201D), reason);
}

// By the file name's extension alone; the bytes are carried as they are.
QString imageMimeType(const QString &path)
{
    // The shared MIME database files .heic under image/heif, the name of the wider
    // format; a .heic file is image/heic.
    if (QFileInfo(path).suffix().compare(QLatin1String("heic"), Qt::CaseInsensitive) == 0)
        return QStringLiteral("image/heic");
    const QMimeType type = QMimeDatabase().mimeTypeForFile(path, QMimeDatabase::MatchExtension);
    if (!type.isValid() || type.isDefault())
        return QStringLiteral("image/jpeg");
    return type.name();
}

} // namespace

void EngineStore::attachImage()
{
    const QStringList files = m_fileChooser
        ? m_fileChooser->chooseFilesToOpen(FileChooser::Kind::Images, false)
        : QStringList();
    if (files.isEmpty())
        return;
    const QString path = files.first();

    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        setError(readFailureMessage(path, file.errorString()));
        return;
    }
    // Refused before reading, so a huge file never fills the memory.
    if (file.size() > largestImageBytes) {
        setError(QStringLiteral("Please choose an image smaller than 30 MB."));
        return;
    }
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        setError(readFailureMessage(path, file.errorString()));
        return;
    }
    if (bytes.size() > largestImageBytes) {
        setError(QStringLiteral("Please choose an image smaller than 30 MB."));
        return;
    }

    setAttachment(QStringLiteral("data:") + imageMimeType(path) + QStringLiteral(";base64,")
                  + QString::fromLatin1(bytes.toBase64()));

    // Lets the engine encode the image while the user is still typing; the message
    // carries the whole image all the same, so the outcome does not matter.
    if (m_state && m_state->vision && m_attachment)
        request(QStringLiteral("api/encode"), QJsonObject{{QStringLiteral("url"), *m_attachment}},
                [](const EngineReply &) {});
}
