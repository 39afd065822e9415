#pragma once

#include <QJsonObject>
#include <optional>

// How much of the model's context a conversation takes, and how many of its earliest
// messages (after the system messages) did not fit and were left out.
struct ContextUse {
    qint64 tokens = 0;
    qint64 size = 0;
    qint64 droppedMessages = 0;

    // The count's answer: {"tokens", "size", "dropped_messages"}, all required.
    static std::optional<ContextUse> fromCount(const QJsonObject &object);
    // A reply's last chunk, or a whole reply: "usage" {"total_tokens"} and "context"
    // {"size", "dropped_messages"}; nothing when either is missing, as from an older
    // engine.
    static std::optional<ContextUse> fromReply(const QJsonObject &object);

    // At least 80 % of the context in use.
    bool nearlyFull() const { return size > 0 && tokens * 5 >= size * 4; }

    bool operator==(const ContextUse &) const = default;
};
