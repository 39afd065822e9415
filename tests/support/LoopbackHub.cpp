#include "LoopbackHub.h"

LoopbackHub::LoopbackHub(const QByteArray &path, const QByteArray &contents, int pieceSize, int delayMs)
    : m_path(path), m_contents(contents)
{
    m_listening = m_server.listen();
    m_server.route("GET", m_path, [this, pieceSize, delayMs](const RecordedRequest &request) {
        return FakeResponse::file(m_contents, request, pieceSize, delayMs);
    });
    qputenv("HF_ENDPOINT", m_server.baseURL().toString().toUtf8());
}

LoopbackHub::~LoopbackHub()
{
    qunsetenv("HF_ENDPOINT");
}

QString LoopbackHub::link() const
{
    return QStringLiteral("https://huggingface.co") + QString::fromUtf8(m_path);
}

QList<RecordedRequest> LoopbackHub::requests() const
{
    return m_server.requestsTo(m_path);
}
