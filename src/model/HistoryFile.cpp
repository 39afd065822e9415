#include "HistoryFile.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QSaveFile>
#include <QStandardPaths>

namespace HistoryFile {

QString defaultFolder()
{
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (folder.isEmpty())
        qFatal("No application data folder is available");
    return QDir(folder).filePath(QStringLiteral("Vorn"));
}

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

std::optional<QString> keepUnreadableCopy(const QString &file)
{
    QFile input(file);
    if (input.size() <= 0 || !input.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QByteArray bytes = input.readAll();
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    QString copy = file + QStringLiteral(".unreadable-") + stamp;
    for (int attempt = 2; QFileInfo::exists(copy); ++attempt)
        copy = file + QStringLiteral(".unreadable-") + stamp + QLatin1Char('-') + QString::number(attempt);
    QSaveFile output(copy);
    if (!output.open(QIODevice::WriteOnly))
        return std::nullopt;
    output.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    if (output.write(bytes) != bytes.size() || !output.commit())
        return std::nullopt;
    return copy;
}

namespace {

// JSON string escaping written out by hand: saving a long history through
// QJsonDocument costs several times more, and saves run on the main thread.
void appendJsonString(QByteArray &out, const QString &text)
{
    static const char hex[] = "0123456789abcdef";
    const QByteArray utf8 = text.toUtf8();
    out.append('"');
    qsizetype runStart = 0;
    for (qsizetype index = 0; index < utf8.size(); ++index) {
        const auto byte = static_cast<unsigned char>(utf8.at(index));
        if (byte >= 0x20 && byte != '"' && byte != '\\')
            continue;
        out.append(utf8.constData() + runStart, index - runStart);
        runStart = index + 1;
        switch (byte) {
        case '"':
            out.append("\\\"");
            break;
        case '\\':
            out.append("\\\\");
            break;
        case '\n':
            out.append("\\n");
            break;
        case '\r':
            out.append("\\r");
            break;
        case '\t':
            out.append("\\t");
            break;
        default:
            out.append("\\u00");
            out.append(hex[byte >> 4]);
            out.append(hex[byte & 0xf]);
        }
    }
    out.append(utf8.constData() + runStart, utf8.size() - runStart);
    out.append('"');
}

} // namespace

QByteArray encode(const QList<Conversation> &conversations)
{
    QByteArray out;
    out.reserve(1 << 16);
    out.append('[');
    for (qsizetype conversationIndex = 0; conversationIndex < conversations.size(); ++conversationIndex) {
        const Conversation &conversation = conversations.at(conversationIndex);
        if (conversationIndex > 0)
            out.append(',');
        out.append("{\"id\":\"").append(uuidText(conversation.id).toLatin1()).append("\",\"title\":");
        appendJsonString(out, conversation.title);
        out.append(",\"messages\":[");
        for (qsizetype messageIndex = 0; messageIndex < conversation.messages.size(); ++messageIndex) {
            const ChatMessage &message = conversation.messages.at(messageIndex);
            if (messageIndex > 0)
                out.append(',');
            out.append("{\"id\":\"").append(uuidText(message.id).toLatin1()).append("\",\"role\":");
            appendJsonString(out, message.role);
            out.append(",\"text\":");
            appendJsonString(out, message.text);
            if (message.image) {
                out.append(",\"image\":");
                appendJsonString(out, *message.image);
            }
            if (message.thinkingSeconds)
                out.append(",\"thinkingSeconds\":").append(QByteArray::number(*message.thinkingSeconds));
            out.append('}');
        }
        out.append(']');
        // Written only when set, so a history without them reads as it always has.
        if (conversation.pinned)
            out.append(",\"pinned\":true");
        if (conversation.system) {
            out.append(",\"system\":");
            appendJsonString(out, *conversation.system);
        }
        out.append('}');
    }
    out.append(']');
    return out;
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
