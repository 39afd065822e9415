#include "HistoryFile.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QSaveFile>

namespace HistoryFile {

void prepareFolder(const QString &folder)
{
    QDir().mkpath(folder);
    QFile::setPermissions(folder, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
}

std::optional<QList<Conversation>> decode(const QByteArray &json)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isArray())
        return std::nullopt;
    const QJsonArray array = document.array();
    QList<Conversation> conversations;
    conversations.reserve(array.size());
    for (const QJsonValue &element : array) {
        auto conversation = Conversation::fromJson(element);
        if (!conversation)
            return std::nullopt;
        conversations.append(std::move(*conversation));
    }
    return conversations;
}

std::optional<QList<Conversation>> load(const QString &file)
{
    QFile input(file);
    if (!input.open(QIODevice::ReadOnly))
        return std::nullopt;
    return decode(input.readAll());
}

QByteArray encode(const QList<Conversation> &conversations)
{
    QJsonArray array;
    for (const Conversation &conversation : conversations)
        array.append(conversation.toJson());
    return QJsonDocument(array).toJson(QJsonDocument::Compact);
}

bool save(const QString &file, const QList<Conversation> &conversations)
{
    const QByteArray bytes = encode(conversations);
    QSaveFile output(file);
    bool written = output.open(QIODevice::WriteOnly) && output.write(bytes) == bytes.size();
    written = written && output.commit();
    if (!written)
        output.cancelWriting();
    QFile::setPermissions(file, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    return written;
}

} // namespace HistoryFile
