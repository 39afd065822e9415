#include "FakeEngine.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

QByteArray RecordedRequest::header(const QByteArray &name) const
{
    for (const auto &[key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return {};
}

QJsonObject RecordedRequest::json() const
{
    return QJsonDocument::fromJson(body).object();
}

FakeResponse FakeResponse::json(int status, const QByteArray &body)
{
    FakeResponse response;
    response.status = status;
    response.body = body;
    return response;
}

FakeResponse FakeResponse::stream(const QList<QByteArray> &lines, int delayBetweenMs)
{
    FakeResponse response;
    response.contentType = "text/event-stream";
    for (const QByteArray &line : lines)
        response.parts.append({delayBetweenMs, line});
    return response;
}

FakeResponse FakeResponse::silent()
{
    FakeResponse response;
    response.neverAnswer = true;
    return response;
}

QByteArray FakeResponse::delta(const QString &content)
{
    const QJsonObject event{{"choices", QJsonArray{QJsonObject{{"delta", QJsonObject{{"content", content}}}}}}};
    return "data: " + QJsonDocument(event).toJson(QJsonDocument::Compact) + "\n\n";
}

QByteArray FakeResponse::reasoningDelta(const QString &reasoning)
{
    const QJsonObject event{
        {"choices", QJsonArray{QJsonObject{{"delta", QJsonObject{{"reasoning_content", reasoning}}}}}}};
    return "data: " + QJsonDocument(event).toJson(QJsonDocument::Compact) + "\n\n";
}

QByteArray FakeResponse::lastChunk(qint64 promptTokens, qint64 completionTokens, qint64 contextSize,
                                   qint64 droppedMessages)
{
    const QJsonObject event{
        {"choices", QJsonArray{QJsonObject{{"index", 0}, {"delta", QJsonObject{}}, {"finish_reason", "stop"}}}},
        {"usage",
         QJsonObject{{"prompt_tokens", promptTokens},
                     {"completion_tokens", completionTokens},
                     {"total_tokens", promptTokens + completionTokens}}},
        {"context", QJsonObject{{"size", contextSize}, {"dropped_messages", droppedMessages}}},
    };
    return "data: " + QJsonDocument(event).toJson(QJsonDocument::Compact) + "\n\n";
}

FakeResponse FakeResponse::count(qint64 tokens, qint64 contextSize, qint64 droppedMessages)
{
    const QJsonObject answer{{"tokens", tokens}, {"size", contextSize}, {"dropped_messages", droppedMessages}};
    return json(200, QJsonDocument(answer).toJson(QJsonDocument::Compact));
}

FakeResponse FakeResponse::file(const QByteArray &contents, const RecordedRequest &request, int pieceSize, int delayMs)
{
    FakeResponse response;
    response.contentType = "application/octet-stream";
    qsizetype start = 0;
    const QByteArray range = request.header("Range");
    if (range.startsWith("bytes=") && range.endsWith('-')) {
        start = range.mid(6, range.size() - 7).toLongLong();
        if (start >= contents.size()) {
            response.status = 416;
            return response;
        }
        response.status = 206;
        response.headers.append({"Content-Range",
                                 "bytes " + QByteArray::number(start) + '-' + QByteArray::number(contents.size() - 1)
                                     + '/' + QByteArray::number(contents.size())});
    }
    response.headers.append({"Content-Length", QByteArray::number(contents.size() - start)});
    for (qsizetype offset = start; offset < contents.size(); offset += pieceSize)
        response.parts.append({delayMs, contents.mid(offset, pieceSize)});
    if (response.parts.isEmpty())
        response.parts.append({0, QByteArray()});
    return response;
}

FakeEngine::FakeEngine(QObject *parent) : QObject(parent), m_server(new QTcpServer(this))
{
    connect(m_server, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *socket = m_server->nextPendingConnection()) {
            // Streamed events are small writes; without this, Nagle's algorithm and the
            // client's delayed acknowledgement hold them back up to 40 ms.
            socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
            m_buffers.insert(socket, {});
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
            connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
                m_buffers.remove(socket);
                socket->deleteLater();
            });
        }
    });
}

FakeEngine::~FakeEngine()
{
    dropAllConnections();
}

bool FakeEngine::listen(quint16 port)
{
    return m_server->listen(QHostAddress::LocalHost, port);
}

quint16 FakeEngine::port() const
{
    return m_server->serverPort();
}

QUrl FakeEngine::baseURL() const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port()));
}

void FakeEngine::route(const QByteArray &method, const QByteArray &path, const FakeResponse &response)
{
    route(method, path, [response](const RecordedRequest &) { return response; });
}

void FakeEngine::route(const QByteArray &method, const QByteArray &path,
                       std::function<FakeResponse(const RecordedRequest &)> handler)
{
    m_routes.insert(method + ' ' + path, std::move(handler));
}

void FakeEngine::setState(const QByteArray &stateJson)
{
    route("GET", "/api/state", FakeResponse::json(200, stateJson));
}

QList<RecordedRequest> FakeEngine::requestsTo(const QByteArray &path) const
{
    QList<RecordedRequest> matching;
    for (const RecordedRequest &request : m_requests) {
        if (request.path == path)
            matching.append(request);
    }
    return matching;
}

void FakeEngine::dropAllConnections()
{
    const auto sockets = m_buffers.keys();
    for (QTcpSocket *socket : sockets)
        socket->abort();
}

QByteArray FakeEngine::stateJson(const QString &loaded, bool vision, const QByteArray &modelsJson,
                                 const QByteArray &downloadsJson, double decodeTps, qint64 completionTokens,
                                 const QString &backend, qint64 contextSize)
{
    const QByteArray loadedJson = loaded.isEmpty() ? QByteArray("null") : '"' + loaded.toUtf8() + '"';
    return QByteArray(R"({"version":"test","dir":"/models","loaded":)") + loadedJson + R"(,"backend":")"
        + backend.toUtf8() + R"(","ctx":)" + QByteArray::number(contextSize) + R"(,"vision":)"
        + (vision ? "true" : "false") + R"(,"models":)" + modelsJson + R"(,"downloads":)" + downloadsJson
        + R"(,"last":{"decode_tps":)" + QByteArray::number(decodeTps)
        + R"(,"prefill_tps":0,"prompt_tokens":0,"completion_tokens":)" + QByteArray::number(completionTokens) + "}}";
}

QByteArray FakeEngine::modelJson(const QString &name, qint64 size, const ModelDetails &details, bool projector)
{
    QJsonObject model{{"name", name}, {"size", size}, {"projector", projector}};
    if (!details.architecture.isEmpty())
        model.insert("architecture", details.architecture);
    if (details.contextLength > 0)
        model.insert("context_length", details.contextLength);
    if (details.parameters > 0)
        model.insert("parameters", details.parameters);
    if (!details.quantization.isEmpty())
        model.insert("quantization", details.quantization);
    if (details.kvBytesPerToken > 0)
        model.insert("kv_bytes_per_token", details.kvBytesPerToken);
    return QJsonDocument(model).toJson(QJsonDocument::Compact);
}

void FakeEngine::onReadyRead(QTcpSocket *socket)
{
    QByteArray &buffer = m_buffers[socket];
    buffer += socket->readAll();
    for (;;) {
        const qsizetype headerEnd = buffer.indexOf("\r\n\r\n");
        if (headerEnd < 0)
            return;
        const QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
        RecordedRequest request;
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        request.method = requestLine.value(0);
        request.path = requestLine.value(1);
        qsizetype contentLength = 0;
        for (qsizetype index = 1; index < lines.size(); ++index) {
            const QByteArray line = lines.at(index).trimmed();
            const qsizetype colon = line.indexOf(':');
            if (colon <= 0)
                continue;
            const QByteArray name = line.left(colon).trimmed();
            const QByteArray value = line.mid(colon + 1).trimmed();
            request.headers.append({name, value});
            if (name.compare("content-length", Qt::CaseInsensitive) == 0)
                contentLength = value.toLongLong();
        }
        const qsizetype total = headerEnd + 4 + contentLength;
        if (buffer.size() < total)
            return;
        request.body = buffer.mid(headerEnd + 4, contentLength);
        buffer.remove(0, total);
        m_requests.append(request);
        emit requestReceived(request);
        answer(socket, request);
        if (!m_buffers.contains(socket))
            return;
    }
}

void FakeEngine::answer(QTcpSocket *socket, const RecordedRequest &request)
{
    QByteArray path = request.path;
    if (const qsizetype query = path.indexOf('?'); query >= 0)
        path.truncate(query);
    const auto route = m_routes.constFind(request.method + ' ' + path);
    const FakeResponse response = route != m_routes.cend() ? (*route)(request)
                                                           : FakeResponse::json(404, R"({"error":"not found"})");
    if (response.delayMs > 0) {
        QPointer<QTcpSocket> guarded(socket);
        QTimer::singleShot(response.delayMs, this, [this, guarded, response] {
            if (guarded)
                sendResponse(guarded, response);
        });
        return;
    }
    sendResponse(socket, response);
}

void FakeEngine::sendResponse(QTcpSocket *socket, const FakeResponse &response)
{
    if (response.neverAnswer)
        return;
    if (response.dropConnection) {
        socket->abort();
        return;
    }
    QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status) + " Status\r\n";
    head += "Content-Type: " + response.contentType + "\r\n";
    bool rawParts = false;
    for (const auto &[name, value] : response.headers) {
        head += name + ": " + value + "\r\n";
        rawParts = rawParts || name.compare("Content-Length", Qt::CaseInsensitive) == 0;
    }
    if (response.parts.isEmpty()) {
        head += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n\r\n";
        socket->write(head + response.body);
        return;
    }
    head += rawParts ? QByteArray("\r\n") : QByteArray("Transfer-Encoding: chunked\r\n\r\n");
    socket->write(head);
    // Parts go out one after another, each after its own delay.
    QPointer<QTcpSocket> guarded(socket);
    auto sendPart = std::make_shared<std::function<void(int)>>();
    *sendPart = [this, guarded, response, sendPart, rawParts](int index) {
        if (!guarded) {
            ++m_abandonedReplies;
            return;
        }
        if (index >= response.parts.size()) {
            if (response.dropAfterParts) {
                guarded->abort();
                return;
            }
            if (!rawParts)
                guarded->write("0\r\n\r\n");
            return;
        }
        const QByteArray &data = response.parts.at(index).second;
        if (rawParts)
            guarded->write(data);
        else if (!data.isEmpty())
            guarded->write(QByteArray::number(data.size(), 16) + "\r\n" + data + "\r\n");
        guarded->flush();
        ++m_partsSent;
        const int nextDelay = index + 1 < response.parts.size() ? response.parts.at(index + 1).first : 0;
        if (nextDelay > 0)
            QTimer::singleShot(nextDelay, this, [sendPart, index] { (*sendPart)(index + 1); });
        else
            (*sendPart)(index + 1);
    };
    const int firstDelay = response.parts.first().first;
    if (firstDelay > 0)
        QTimer::singleShot(firstDelay, this, [sendPart] { (*sendPart)(0); });
    else
        (*sendPart)(0);
}
