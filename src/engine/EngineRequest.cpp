#include "EngineRequest.h"

namespace EngineRequest {

QNetworkRequest build(const QUrl &base, const QString &path, int timeoutMilliseconds)
{
    QUrl target = base;
    target.setPath(QLatin1Char('/') + path);
    QNetworkRequest request(target);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    request.setTransferTimeout(timeoutMilliseconds);
    // The engine never redirects; a redirect is answered as the error it is.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    return request;
}

} // namespace EngineRequest
