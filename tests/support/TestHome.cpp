#include "TestHome.h"

#include <QDir>
#include <QFile>
#include <QSettings>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <sys/stat.h>

namespace {
const QList<QByteArray> variables{"HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME"};
}

TestHome::TestHome()
{
    for (const QByteArray &name : variables)
        m_saved.insert(name, qgetenv(name.constData()));
    const QString root = m_folder.path();
    qputenv("HOME", root.toUtf8());
    qputenv("XDG_DATA_HOME", (root + QStringLiteral("/.local/share")).toUtf8());
    qputenv("XDG_CONFIG_HOME", (root + QStringLiteral("/.config")).toUtf8());
    qputenv("XDG_CACHE_HOME", (root + QStringLiteral("/.cache")).toUtf8());
    qputenv("XDG_STATE_HOME", (root + QStringLiteral("/.local/state")).toUtf8());
}

TestHome::~TestHome()
{
    for (auto it = m_saved.cbegin(); it != m_saved.cend(); ++it) {
        if (it.value().isEmpty())
            qunsetenv(it.key().constData());
        else
            qputenv(it.key().constData(), it.value());
    }
}

QString TestHome::dataFolder() const
{
    return QDir(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation)).filePath(QStringLiteral("Vorn"));
}

QString TestHome::modelsFolder() const
{
    return QDir(path()).filePath(QStringLiteral(".vorn/models"));
}

QString TestHome::historyFile() const
{
    return QDir(dataFolder()).filePath(QStringLiteral("conversations.json"));
}

void TestHome::isolateSettings()
{
    static QTemporaryDir settingsFolder;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, settingsFolder.path());
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, settingsFolder.path());
}

int TestHome::posixMode(const QString &path)
{
    struct stat info {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return -1;
    return static_cast<int>(info.st_mode & 07777);
}
