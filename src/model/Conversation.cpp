#include "Conversation.h"

#include "StrictJson.h"

#include <QJsonArray>
#include <QTextBoundaryFinder>

namespace {

// The first count user-perceived characters (grapheme clusters) of text.
QString firstCharacters(const QString &text, int count)
{
    QTextBoundaryFinder boundaries(QTextBoundaryFinder::Grapheme, text);
    int taken = 0;
    qsizetype end = 0;
    while (taken < count) {
        const qsizetype next = boundaries.toNextBoundary();
        if (next < 0)
            return text;
        end = next;
        ++taken;
    }
    return text.left(end);
}

} // namespace

QString Conversation::titleFor(const QString &firstText)
{
    return firstCharacters(firstText, 40);
}

std::optional<Conversation> Conversation::fromJson(const QJsonValue &value)
{
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject object = value.toObject();
    const auto idText = StrictJson::text(object, QStringLiteral("id"));
    const auto title = StrictJson::text(object, QStringLiteral("title"));
    const QJsonValue messagesValue = object.value(QStringLiteral("messages"));
    const auto pinned = StrictJson::optionalBoolean(object, QStringLiteral("pinned"));
    const auto system = StrictJson::optionalText(object, QStringLiteral("system"));
    if (!idText || !title || !messagesValue.isArray() || !pinned || !system)
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
    return Conversation{*id, *title, std::move(messages), pinned->value_or(false), *system};
}

QJsonObject Conversation::toJson() const
{
    QJsonArray array;
    for (const ChatMessage &message : messages)
        array.append(message.toJson());
    QJsonObject object{
        {QStringLiteral("id"), uuidText(id)},
        {QStringLiteral("title"), title},
        {QStringLiteral("messages"), array},
    };
    if (pinned)
        object.insert(QStringLiteral("pinned"), true);
    if (system)
        object.insert(QStringLiteral("system"), *system);
    return object;
}
