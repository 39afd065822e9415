#pragma once

#include <QNetworkRequest>
#include <QString>
#include <QUrl>

// How every call to the engine is addressed: the path under the engine's address, a
// JSON body, how long the call may go without any bytes moving, and no redirects.
namespace EngineRequest {

QNetworkRequest build(const QUrl &base, const QString &path, int timeoutMilliseconds);

} // namespace EngineRequest
