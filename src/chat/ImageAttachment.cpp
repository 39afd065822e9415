#include "ImageAttachment.h"

#include <QFile>
#include <QFileInfo>
#include <QMimeDatabase>

namespace {

constexpr qint64 largestImageBytes = 30 * 1024 * 1024;

QString readFailureMessage(const QString &path, const QString &reason)
{
    return QStringLiteral("The image %1 could not be read: %2.")
        .arg(QChar(0x201C) + QFileInfo(path).fileName() + QChar(0x201D), reason);
}

QString tooLargeMessage()
{
    return QStringLiteral("Please choose an image smaller than 30 MB.");
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

ImageAttachment ImageAttachment::read(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {{}, readFailureMessage(path, file.errorString())};
    // Refused before reading, so a huge file never fills the memory.
    if (file.size() > largestImageBytes)
        return {{}, tooLargeMessage()};
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return {{}, readFailureMessage(path, file.errorString())};
    if (bytes.size() > largestImageBytes)
        return {{}, tooLargeMessage()};
    return {QStringLiteral("data:") + imageMimeType(path) + QStringLiteral(";base64,")
                + QString::fromLatin1(bytes.toBase64()),
            {}};
}
