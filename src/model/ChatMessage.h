#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QUuid>
#include <optional>

// One message of a conversation: the user's question or the model's reply.
struct ChatMessage {
    QUuid id = QUuid::createUuid();
    QString role;
    QString text;
    // A data URL ("data:<mime>;base64,<bytes>") on user messages that carry an image.
    std::optional<QString> image;
    // How long a reasoning model thought before its answer, in whole seconds, when the
    // reply was timed as it arrived.
    std::optional<qint64> thinkingSeconds;

    // The message as the chat-completions endpoint takes it; the id is never sent.
    QJsonObject payload() const;

    // History file coding: "id", "role", "text" required; "image" and "thinkingSeconds"
    // optional and written only when present.
    static std::optional<ChatMessage> fromJson(const QJsonValue &value);
    QJsonObject toJson() const;
};

// Upper-case 36-character UUID text, and its strict reading (either case).
QString uuidText(const QUuid &id);
std::optional<QUuid> uuidFromText(const QString &text);
