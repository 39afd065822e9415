// The store's JSON calls to the engine and the status call.
#include "EngineStore.h"

#include "model/PlatformWords.h"

#include <QJsonDocument>
#include <QJsonParseError>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>

namespace {

// Set on a reply that its caller stopped, so its end is not taken for a time-out.
constexpr char cancelledByCaller[] = "vornCancelledByCaller";

QString genericEngineMessage()
{
    return QStringLiteral("The engine could not complete this request.");
}

// The message of an engine error body: its "error" member when that is a text.
QString engineErrorMessage(const QByteArray &body)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(body, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
        return genericEngineMessage();
    const QJsonValue message = document.object().value(QStringLiteral("error"));
    return message.isString() ? message.toString() : genericEngineMessage();
}

EngineFailure transportFailure(QNetworkReply *reply)
{
    const auto error = reply->error();
    // The transfer time-out aborts the reply, which then reads as cancelled; only a
    // reply that its caller stopped was really cancelled.
    if (error == QNetworkReply::OperationCanceledError && reply->property(cancelledByCaller).toBool())
        return EngineFailure{EngineFailure::Kind::Cancelled, QStringLiteral("QNetworkReply"), error,
                             QStringLiteral("cancelled")};
    if (error == QNetworkReply::OperationCanceledError || error == QNetworkReply::TimeoutError)
        return EngineFailure{EngineFailure::Kind::Transport, QStringLiteral("QNetworkReply"), error,
                             EngineFailure::timedOutMessage()};
    return EngineFailure{EngineFailure::Kind::Transport, QStringLiteral("QNetworkReply"), error,
                         reply->errorString()};
}

} // namespace

QNetworkReply *EngineStore::request(const QString &path, const std::optional<QJsonObject> &body,
                                    std::function<void(const EngineReply &)> done)
{
    if (!m_baseURL) {
        // Never launched: fail as an unreachable host would, without touching the network.
        QTimer::singleShot(0, this, [done = std::move(done)] {
            done(EngineReply{{}, EngineFailure{EngineFailure::Kind::Transport, QStringLiteral("NSURLErrorDomain"),
                                               -1004, QStringLiteral("Could not connect to the server.")}});
        });
        return nullptr;
    }

    QUrl target = *m_baseURL;
    target.setPath(QLatin1Char('/') + path);
    QNetworkRequest networkRequest(target);
    networkRequest.setTransferTimeout(m_requestTimeoutMilliseconds);
    // The engine never redirects; a redirect is answered as the error it is.
    networkRequest.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    networkRequest.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    networkRequest.setRawHeader(QByteArrayLiteral("X-Vorn-App"), QByteArrayLiteral("1"));

    QNetworkReply *reply = body
        ? m_network->post(networkRequest, QJsonDocument(*body).toJson(QJsonDocument::Compact))
        : m_network->get(networkRequest);

    connect(reply, &QNetworkReply::finished, this, [reply, done = std::move(done)] {
        reply->deleteLater();
        const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        const auto error = reply->error();
        // Network-layer failures (connection refused, time-out, reset, cancelled) are below 200.
        const bool transportBroke = error != QNetworkReply::NoError && error < QNetworkReply::ContentAccessDenied;
        if (!status.isValid() || transportBroke) {
            done(EngineReply{{}, transportFailure(reply)});
            return;
        }
        const QByteArray replyBody = reply->readAll();
        const int code = status.toInt();
        if (code >= 200 && code <= 299) {
            done(EngineReply{replyBody, std::nullopt});
            return;
        }
        done(EngineReply{{}, EngineFailure::vorn(1, engineErrorMessage(replyBody))});
    });
    return reply;
}

void EngineStore::cancelRequest(QNetworkReply *reply)
{
    if (!reply)
        return;
    reply->setProperty(cancelledByCaller, true);
    reply->abort();
}

QNetworkReply *EngineStore::refresh(std::function<void(bool)> done)
{
    return request(QStringLiteral("api/state"), std::nullopt, [this, done = std::move(done)](const EngineReply &reply) {
        std::optional<EngineState> decoded;
        if (reply.ok())
            decoded = EngineState::decode(reply.body);
        if (!decoded) {
            if (done)
                done(false);
            return;
        }
        setState(decoded);
        setReady(true);
        if (!m_loading && !m_generating)
            setActivity(hasLoadedModel() ? QStringLiteral("Model ready") : PlatformWords::readyActivity());
        runStatusChange();
        if (done)
            done(true);
    });
}
