#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

// Why a call to the engine did not give a usable reply. The message is the text shown
// to the user. An engine reply outside 2xx is the error the app itself raises (domain
// "Vorn", code 1); the others come from the network layer or from the caller stopping.
struct EngineFailure {
    enum class Kind { Transport, Cancelled, Engine };

    Kind kind = Kind::Transport;
    QString message;

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
