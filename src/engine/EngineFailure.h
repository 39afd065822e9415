#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

// Why a call to the engine did not give a usable reply. The message is the text
// shown to the user. Domain "Vorn" codes: 1 an engine reply outside 2xx, 2 a chat
// reply other than 200, 3 an import name already in use.
struct EngineFailure {
    enum class Kind { Transport, Cancelled, Engine };

    Kind kind = Kind::Transport;
    QString domain;
    int code = 0;
    QString message;

    static EngineFailure vorn(int code, const QString &message)
    {
        return EngineFailure{Kind::Engine, QStringLiteral("Vorn"), code, message};
    }

    // What a request that got no answer in time says, whatever the network layer
    // called it.
    static QString timedOutMessage() { return QStringLiteral("The request timed out."); }
};

// What request() hands back: the body of a 2xx reply, or the failure.
struct EngineReply {
    QByteArray body;
    std::optional<EngineFailure> failure;

    bool ok() const { return !failure.has_value(); }
};
