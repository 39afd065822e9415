#pragma once

#include "FakeEngine.h"

#include <QByteArray>
#include <QString>

// A stand-in for the model hub on loopback: serves one file like a download host
// (ranges honoured, sent in pieces with pauses) and points the engine at itself through
// HF_ENDPOINT for as long as it lives.
class LoopbackHub {
public:
    // path: the file's place on the hub, "/owner/repo/resolve/main/name.gguf".
    LoopbackHub(const QByteArray &path, const QByteArray &contents, int pieceSize, int delayMs);
    ~LoopbackHub();

    bool listening() const { return m_listening; }
    // The link a user would paste for the file.
    QString link() const;
    FakeEngine &server() { return m_server; }
    // The requests the engine made for the file.
    QList<RecordedRequest> requests() const;

private:
    FakeEngine m_server;
    QByteArray m_path;
    QByteArray m_contents;
    bool m_listening = false;
};
