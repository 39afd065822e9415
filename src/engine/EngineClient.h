#pragma once

#include "EngineFailure.h"

#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QUrl>
#include <functional>
#include <optional>

class QNetworkAccessManager;
class QNetworkReply;
class QNetworkRequest;

// The app's HTTP calls to its engine on the loopback interface: JSON calls with their
// failures read into one message, and the streamed chat request.
class EngineClient : public QObject {
    Q_OBJECT
public:
    explicit EngineClient(QObject *parent = nullptr);

    // "http://127.0.0.1:<port>", once the engine has been launched.
    const std::optional<QUrl> &baseURL() const { return m_baseURL; }
    void setBaseURL(const QUrl &baseURL) { m_baseURL = baseURL; }

    // A JSON call to the engine; done runs once, on the main thread, with the body of
    // a 2xx reply or the failure. Returns the reply in flight (to abort it), or null
    // when the call failed before reaching the network.
    QNetworkReply *request(const QString &path, const std::optional<QJsonObject> &body,
                           std::function<void(const EngineReply &)> done);
    // Stops a call of request() on behalf of its caller: done then gets a cancellation,
    // never the time-out that the network layer would report in the same way.
    static void cancelRequest(QNetworkReply *reply);

    // Posts a request whose reply is read as it streams; the caller owns the reply.
    QNetworkReply *post(const QNetworkRequest &request, const QJsonObject &body);

    // How long a call, or a chat reply, may go without any bytes moving before it fails
    // as timed out.
    int requestTimeout() const { return m_requestTimeoutMilliseconds; }
    int chatTimeout() const { return m_chatTimeoutMilliseconds; }
    void setTimeouts(int requestMilliseconds, int chatMilliseconds);

private:
    QNetworkAccessManager *m_network;
    std::optional<QUrl> m_baseURL;
    int m_requestTimeoutMilliseconds = 180 * 1000;
    int m_chatTimeoutMilliseconds = 600 * 1000;
};
