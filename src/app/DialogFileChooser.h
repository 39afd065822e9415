#pragma once

#include "engine/FileChooser.h"

// The app's file dialogs, modal, with the platform's own look where it has one.
class DialogFileChooser : public FileChooser {
public:
    QStringList chooseFilesToOpen(Kind kind, bool multiple) override;
    std::optional<SaveTarget> chooseFileToSave(const QString &proposedName, const QList<TextFormat> &formats) override;
};
