#include "EngineClient.h"

#include "EngineRequest.h"

#include <QJsonDocument>
#include <QJsonParseError>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
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
        return EngineFailure{EngineFailure::Kind::Cancelled, QStringLiteral("cancelled")};
    if (error == QNetworkReply::OperationCanceledError || error == QNetworkReply::TimeoutError)
        return EngineFailure{EngineFailure::Kind::Transport, EngineFailure::timedOutMessage()};
    return EngineFailure{EngineFailure::Kind::Transport, reply->errorString()};
}

} // namespace

EngineClient::EngineClient(QObject *parent) : QObject(parent), m_network(new QNetworkAccessManager(this))
{
    // Local engine only: never go through a system proxy.
    m_network->setProxy(QNetworkProxy::NoProxy);
}

void EngineClient::setTimeouts(int requestMilliseconds, int chatMilliseconds)
{
    m_requestTimeoutMilliseconds = requestMilliseconds;
    m_chatTimeoutMilliseconds = chatMilliseconds;
}

QNetworkReply *EngineClient::request(const QString &path, const std::optional<QJsonObject> &body,
                                     std::function<void(const EngineReply &)> done)
{
    if (!m_baseURL) {
        // Never launched: fail as an unreachable host would, without touching the network.
        QTimer::singleShot(0, this, [done = std::move(done)] {
            done(EngineReply{
                {}, EngineFailure{EngineFailure::Kind::Transport, QStringLiteral("Could not connect to the server.")}});
        });
        return nullptr;
    }

    QNetworkRequest networkRequest = EngineRequest::build(*m_baseURL, path, m_requestTimeoutMilliseconds);
    networkRequest.setRawHeader(QByteArrayLiteral("X-Vorn-App"), QByteArrayLiteral("1"));
    QNetworkReply *reply = body ? post(networkRequest, *body) : m_network->get(networkRequest);

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
        done(EngineReply{{}, EngineFailure{EngineFailure::Kind::Engine, engineErrorMessage(replyBody)}});
    });
    return reply;
}

void EngineClient::cancelRequest(QNetworkReply *reply)
{
    if (!reply)
        return;
    reply->setProperty(cancelledByCaller, true);
    reply->abort();
}

QNetworkReply *EngineClient::post(const QNetworkRequest &request, const QJsonObject &body)
{
    return m_network->post(request, QJsonDocument(body).toJson(QJsonDocument::Compact));
}
