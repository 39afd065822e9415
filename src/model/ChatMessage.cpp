#include "ChatMessage.h"

#include "StrictJson.h"

#include <QJsonArray>

QString uuidText(const QUuid &id)
{
    return id.toString(QUuid::WithoutBraces).toUpper();
}

namespace {

// ASCII 0-9, a-f and A-F only.
bool isHexDigit(QChar character)
{
    const char16_t code = character.unicode();
    return (code >= u'0' && code <= u'9') || (code >= u'a' && code <= u'f') || (code >= u'A' && code <= u'F');
}

} // namespace

std::optional<QUuid> uuidFromText(const QString &text)
{
    if (text.size() != 36)
        return std::nullopt;
    for (int index = 0; index < text.size(); ++index) {
        const QChar character = text.at(index);
        const bool hyphenPlace = index == 8 || index == 13 || index == 18 || index == 23;
        if (hyphenPlace ? character != QLatin1Char('-') : !isHexDigit(character))
            return std::nullopt;
    }
    return QUuid::fromString(text);
}

QJsonObject ChatMessage::payload() const
{
    if (!image)
        return QJsonObject{{QStringLiteral("role"), role}, {QStringLiteral("content"), text}};
    const QJsonObject imagePart{
        {QStringLiteral("type"), QStringLiteral("image_url")},
        {QStringLiteral("image_url"), QJsonObject{{QStringLiteral("url"), *image}}},
    };
    const QJsonObject textPart{
        {QStringLiteral("type"), QStringLiteral("text")},
        {QStringLiteral("text"), text},
    };
    return QJsonObject{
        {QStringLiteral("role"), role},
        {QStringLiteral("content"), QJsonArray{imagePart, textPart}},
    };
}

std::optional<ChatMessage> ChatMessage::fromJson(const QJsonValue &value)
{
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject object = value.toObject();
    const auto idText = StrictJson::text(object, QStringLiteral("id"));
    const auto role = StrictJson::text(object, QStringLiteral("role"));
    const auto text = StrictJson::text(object, QStringLiteral("text"));
    const auto image = StrictJson::optionalText(object, QStringLiteral("image"));
    if (!idText || !role || !text || !image)
        return std::nullopt;
    const auto id = uuidFromText(*idText);
    if (!id)
        return std::nullopt;
    ChatMessage message{*id, *role, *text, *image};
    // Only a display figure: a value that is no count of seconds is left out.
    const auto thinking = StrictJson::integerValue(object.value(QStringLiteral("thinkingSeconds")));
    if (thinking && *thinking >= 0)
        message.thinkingSeconds = thinking;
    return message;
}

QJsonObject ChatMessage::toJson() const
{
    QJsonObject object{
        {QStringLiteral("id"), uuidText(id)},
        {QStringLiteral("role"), role},
        {QStringLiteral("text"), text},
    };
    if (image)
        object.insert(QStringLiteral("image"), *image);
    if (thinkingSeconds)
        object.insert(QStringLiteral("thinkingSeconds"), *thinkingSeconds);
    return object;
}
