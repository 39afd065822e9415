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

    // History file coding: "id", "title" and "messages" are all required.
    static std::optional<Conversation> fromJson(const QJsonValue &value);
    QJsonObject toJson() const;
};
