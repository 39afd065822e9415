#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <optional>
#include <utility>

// The file dialogs the store needs. The app uses real dialogs; tests answer from a script.
class FileChooser {
public:
    enum class Kind { Models, Images };
    // What a conversation can be saved as.
    enum class TextFormat { Plain, Markdown };

    // A file to save to, and the format chosen for it.
    struct SaveTarget {
        SaveTarget(QString path, TextFormat format = TextFormat::Plain) : path(std::move(path)), format(format) {}
        QString path;
        TextFormat format;
    };

    virtual ~FileChooser() = default;

    // Files chosen to open, in the chooser's order; empty when the user cancelled.
    virtual QStringList chooseFilesToOpen(Kind kind, bool multiple) = 0;
    // Where to save a text file and in which of the formats offered, starting from the
    // proposed file name, which is in the first format; nothing when cancelled.
    virtual std::optional<SaveTarget> chooseFileToSave(const QString &proposedName,
                                                       const QList<TextFormat> &formats) = 0;

    // The extension of each format's files, and how the dialog names them.
    static QString extension(TextFormat format)
    {
        return format == TextFormat::Markdown ? QStringLiteral("md") : QStringLiteral("txt");
    }
    static QString formatName(TextFormat format)
    {
        return format == TextFormat::Markdown ? QStringLiteral("Markdown") : QStringLiteral("Plain text");
    }
};
