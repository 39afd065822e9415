#pragma once

#include "ChatMessage.h"

#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QUuid>
#include <optional>

// A titled list of messages; a new one is "New conversation" with no messages.
struct Conversation {
    QUuid id = QUuid::createUuid();
    QString title = QStringLiteral("New conversation");
    QList<ChatMessage> messages;
    // Kept at the top of the list.
    bool pinned = false;
    // This conversation's own system prompt; none means the default applies. An empty
    // text is a choice of its own: no system prompt at all.
    std::optional<QString> system;

    // History file coding: "id", "title" and "messages" are required; "pinned" and
    // "system" are optional and written only when set. Other keys are ignored.
    static std::optional<Conversation> fromJson(const QJsonValue &value);
    QJsonObject toJson() const;

    // The title a conversation takes from its first message: its first 40
    // user-perceived characters.
    static QString titleFor(const QString &firstText);
};
