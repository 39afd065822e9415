#include "Conversation.h"

#include "StrictJson.h"

#include <QJsonArray>

std::optional<Conversation> Conversation::fromJson(const QJsonValue &value)
{
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject object = value.toObject();
    const auto idText = StrictJson::text(object, QStringLiteral("id"));
    const auto title = StrictJson::text(object, QStringLiteral("title"));
    const QJsonValue messagesValue = object.value(QStringLiteral("messages"));
    if (!idText || !title || !messagesValue.isArray())
        return std::nullopt;
    const auto id = uuidFromText(*idText);
    if (!id)
        return std::nullopt;
    const QJsonArray array = messagesValue.toArray();
    QList<ChatMessage> messages;
    messages.reserve(array.size());
    for (const QJsonValue &element : array) {
        auto message = ChatMessage::fromJson(element);
        if (!message)
            return std::nullopt;
        messages.append(std::move(*message));
    }
    return Conversation{*id, *title, std::move(messages)};
}

QJsonObject Conversation::toJson() const
{
    QJsonArray array;
    for (const ChatMessage &message : messages)
        array.append(message.toJson());
    return QJsonObject{
        {QStringLiteral("id"), uuidText(id)},
        {QStringLiteral("title"), title},
        {QStringLiteral("messages"), array},
    };
}
