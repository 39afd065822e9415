#pragma once

#include "engine/FileChooser.h"

#include <QList>

// Answers file dialogs from a queue the test fills, and remembers what was asked.
class ScriptedFileChooser : public FileChooser {
public:
    struct OpenRequest {
        Kind kind;
        bool multiple;
    };

    QList<QStringList> openAnswers; // one entry per dialog; empty list = cancel
    // One entry per dialog; nullopt = cancel. A path alone is a plain-text file.
    QList<std::optional<SaveTarget>> saveAnswers;
    QList<OpenRequest> openRequests;
    QStringList proposedSaveNames;
    QList<QList<TextFormat>> offeredFormats;

    QStringList chooseFilesToOpen(Kind kind, bool multiple) override
    {
        openRequests.append({kind, multiple});
        return openAnswers.isEmpty() ? QStringList() : openAnswers.takeFirst();
    }

    std::optional<SaveTarget> chooseFileToSave(const QString &proposedName, const QList<TextFormat> &formats) override
    {
        proposedSaveNames.append(proposedName);
        offeredFormats.append(formats);
        return saveAnswers.isEmpty() ? std::nullopt : saveAnswers.takeFirst();
    }
};
