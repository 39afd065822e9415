#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>

// The small GGUF files in the shared test-model folder (VORN_SHARED_DIR/models).
namespace TestModels {

inline QString path(const QString &name)
{
    return QDir(qEnvironmentVariable("VORN_SHARED_DIR")).filePath(QStringLiteral("models/") + name);
}

// Links a shared model into a models folder, as an import would; false on failure.
inline bool linkInto(const QString &modelsFolder, const QString &name)
{
    QDir().mkpath(modelsFolder);
    return QFile::link(path(name), QDir(modelsFolder).filePath(name));
}

// A shared model's bytes; empty when it cannot be read.
inline QByteArray contents(const QString &name)
{
    QFile file(path(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace TestModels
