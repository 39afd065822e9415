// Writes the application icon, drawn by the app's own icon art, as PNG files for the
// hicolor theme: <folder>/<size>x<size>/apps/<name>.png for each size given.
#include "AppIconArt.h"

#include <QDir>
#include <QGuiApplication>
#include <QImage>
#include <cstdio>

int main(int argc, char *argv[])
{
    // Drawing needs no screen.
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 4) {
        std::fprintf(stderr, "usage: vorn-icon-renderer <folder> <name> <size>...\n");
        return 2;
    }
    const QDir folder(arguments.at(1));
    const QString name = arguments.at(2);
    for (const QString &sizeText : arguments.mid(3)) {
        bool number = false;
        const int size = sizeText.toInt(&number);
        if (!number || size <= 0 || size > 4096) {
            std::fprintf(stderr, "vorn-icon-renderer: %s is not a size\n", qPrintable(sizeText));
            return 2;
        }
        const QString sizeFolder = QStringLiteral("%1x%1/apps").arg(size);
        const QString path = folder.filePath(sizeFolder + QLatin1Char('/') + name + QStringLiteral(".png"));
        if (!folder.mkpath(sizeFolder) || !AppIconArt::applicationImage(size).save(path, "PNG")) {
            std::fprintf(stderr, "vorn-icon-renderer: cannot write %s\n", qPrintable(path));
            return 1;
        }
    }
    return 0;
}
