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

    QList<QStringList> openAnswers;            // one entry per dialog; empty list = cancel
    QList<std::optional<QString>> saveAnswers; // one entry per dialog; nullopt = cancel
    QList<OpenRequest> openRequests;
    QStringList proposedSaveNames;

    QStringList chooseFilesToOpen(Kind kind, bool multiple) override
    {
        openRequests.append({kind, multiple});
        return openAnswers.isEmpty() ? QStringList() : openAnswers.takeFirst();
    }

    std::optional<QString> chooseFileToSave(const QString &proposedName) override
    {
        proposedSaveNames.append(proposedName);
        return saveAnswers.isEmpty() ? std::nullopt : saveAnswers.takeFirst();
    }
};
