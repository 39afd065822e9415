#pragma once

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QPair>
#include <QUrl>
#include <functional>

class QTcpServer;
class QTcpSocket;

// What the fake engine received: one HTTP request.
struct RecordedRequest {
    QByteArray method;
    QByteArray path;
    QList<QPair<QByteArray, QByteArray>> headers; // in the order sent
    QByteArray body;

    QByteArray header(const QByteArray &name) const; // case-insensitive; empty when absent
    QJsonObject json() const;                        // the body as an object, empty when not one
};

// How the fake engine answers one request.
struct FakeResponse {
    int status = 200;
    QByteArray contentType = "application/json";
    QByteArray body;
    // When not empty the reply is chunked: each part is sent after its delay (ms).
    QList<QPair<int, QByteArray>> parts;
    int delayMs = 0;             // before the status line
    bool dropConnection = false; // close the connection instead of answering
    bool dropAfterParts = false; // close mid-stream after the parts, without the final chunk
    bool neverAnswer = false;    // keep the connection open and say nothing
    // Extra response headers. With a Content-Length among them, parts go out raw
    // instead of chunked, as a file server sends a body of known size.
    QList<QPair<QByteArray, QByteArray>> headers;

    static FakeResponse json(int status, const QByteArray &body);
    static FakeResponse stream(const QList<QByteArray> &lines, int delayBetweenMs = 0);
    // Takes the request and never says a word.
    static FakeResponse silent();
    // One streamed chat event whose delta carries this content.
    static QByteArray delta(const QString &content);
    // A piece of reasoning, as an engine streams it apart from the answer.
    static QByteArray reasoningDelta(const QString &reasoning);
    // The last streamed chat event: the finish reason, the usage and the context.
    static QByteArray lastChunk(qint64 promptTokens, qint64 completionTokens, qint64 contextSize,
                                qint64 droppedMessages);
    // The count's answer.
    static FakeResponse count(qint64 tokens, qint64 contextSize, qint64 droppedMessages);
    // A file served like a download host: honours "Range: bytes=N-", sends the body in
    // pieces of pieceSize bytes with delayMs between them.
    static FakeResponse file(const QByteArray &contents, const RecordedRequest &request, int pieceSize, int delayMs);
};

// A scriptable HTTP/1.1 server on 127.0.0.1 that stands in for vorn-engine in tests.
// Routes answer by method and path; unrouted requests get 404 {"error":"not found"}.
class FakeEngine : public QObject {
    Q_OBJECT
public:
    explicit FakeEngine(QObject *parent = nullptr);
    ~FakeEngine() override;

    bool listen(quint16 port = 0);
    quint16 port() const;
    QUrl baseURL() const;

    void route(const QByteArray &method, const QByteArray &path, const FakeResponse &response);
    void route(const QByteArray &method, const QByteArray &path,
               std::function<FakeResponse(const RecordedRequest &)> handler);
    // Convenience: GET /api/state answers with this EngineState JSON.
    void setState(const QByteArray &stateJson);

    QList<RecordedRequest> requests() const { return m_requests; }
    QList<RecordedRequest> requestsTo(const QByteArray &path) const;
    int countOf(const QByteArray &path) const { return static_cast<int>(requestsTo(path).size()); }
    void clearRequests() { m_requests.clear(); }
    // Closes every open connection at once, as a crashed engine would.
    void dropAllConnections();
    // Parts of streamed replies written so far, over all connections.
    int partsSent() const { return m_partsSent; }
    // Streamed replies whose client closed the connection before their last part.
    int abandonedReplies() const { return m_abandonedReplies; }

    // A minimal valid status, with the given loaded model (empty: none) and vision flag.
    static QByteArray stateJson(const QString &loaded = {}, bool vision = false, const QByteArray &modelsJson = "[]",
                                const QByteArray &downloadsJson = "[]", double decodeTps = 0,
                                qint64 completionTokens = 0, const QString &backend = QStringLiteral("cpu"),
                                qint64 contextSize = 4096);
    // A models entry with what the header tells; a detail left at its empty value is
    // left out, as the engine leaves out what a header does not give.
    struct ModelDetails {
        QString architecture;
        qint64 contextLength = 0;
        qint64 parameters = 0;
        QString quantization;
        qint64 kvBytesPerToken = 0;
    };
    static QByteArray modelJson(const QString &name, qint64 size, const ModelDetails &details, bool projector = false);

signals:
    void requestReceived(const RecordedRequest &request);

private:
    void onReadyRead(QTcpSocket *socket);
    void answer(QTcpSocket *socket, const RecordedRequest &request);
    void sendResponse(QTcpSocket *socket, const FakeResponse &response);

    QTcpServer *m_server;
    QHash<QByteArray, std::function<FakeResponse(const RecordedRequest &)>> m_routes;
    QList<RecordedRequest> m_requests;
    QHash<QTcpSocket *, QByteArray> m_buffers;
    int m_partsSent = 0;
    int m_abandonedReplies = 0;
};
