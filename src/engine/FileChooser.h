#pragma once

#include <QString>
#include <QStringList>
#include <optional>

// The file dialogs the store needs. The app uses real dialogs; tests answer from a script.
class FileChooser {
public:
    enum class Kind { Models, Images };

    virtual ~FileChooser() = default;

    // Files chosen to open, in the chooser's order; empty when the user cancelled.
    virtual QStringList chooseFilesToOpen(Kind kind, bool multiple) = 0;
    // Where to save a plain-text file, starting from the proposed file name; nothing
    // when cancelled.
    virtual std::optional<QString> chooseFileToSave(const QString &proposedName) = 0;

    // The extension of the plain-text files saved through chooseFileToSave.
    static constexpr char16_t textExtension[] = u"txt";
};
