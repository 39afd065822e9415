#include "PlatformWords.h"

#include <QDir>

namespace PlatformWords {

Platform current()
{
#if defined(Q_OS_MACOS)
    return Platform::Mac;
#elif defined(Q_OS_WIN)
    return Platform::Windows;
#else
    return Platform::Other;
#endif
}

QString readyActivity(Platform platform)
{
    return platform == Platform::Mac ? QStringLiteral("Ready on this Mac") : QStringLiteral("Ready on this computer");
}

QString modelsStayLocal(Platform platform)
{
    return platform == Platform::Mac ? QStringLiteral("Your models stay on this Mac.")
                                     : QStringLiteral("Your models stay on this computer.");
}

QString bringModelWelcome(Platform platform)
{
    return platform == Platform::Mac
        ? QStringLiteral("Bring a model to your Mac.\nKeep your work on your Mac.")
        : QStringLiteral("Bring a model to your computer.\nKeep your work on your computer.");
}

QString revealInFileBrowser(Platform platform)
{
    switch (platform) {
    case Platform::Mac:
        return QStringLiteral("Show in Finder");
    case Platform::Windows:
        return QStringLiteral("Show in Explorer");
    case Platform::Other:
        break;
    }
    return QStringLiteral("Show in File Manager");
}

QString gpuBadge(Platform platform)
{
    return platform == Platform::Mac ? QStringLiteral("METAL") : QStringLiteral("GPU");
}

QString sendHelp(Platform platform)
{
    return platform == Platform::Mac ? QStringLiteral("Send \u00b7 \u2318 Return")
                                     : QStringLiteral("Send \u00b7 Ctrl+Return");
}

QString historyFootnote(const QString &dataFolder, Platform platform)
{
    const QString lead = QStringLiteral("Use a compatible GGUF model. For images, add its matching projector too. "
                                        "Chat history is stored locally in ");
    if (platform == Platform::Mac)
        return lead + QStringLiteral("Application Support/Vorn.");
    QString shown = QDir::toNativeSeparators(dataFolder);
    const QString home = QDir::toNativeSeparators(QDir::homePath());
    if (shown == home || shown.startsWith(home + QDir::separator()))
        shown = QLatin1Char('~') + shown.mid(home.size());
    return lead + shown + QLatin1Char('.');
}

} // namespace PlatformWords
