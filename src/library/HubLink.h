#pragma once

#include <QString>
#include <optional>

// A Hugging Face download link for one GGUF file, checked as the user typed it.
struct HubLink {
    QString name; // the file name from the link's path, decoded, in its own letter case
    QString url;  // the link itself, query and fragment included

    // The link when it is an https link on the hub's own host whose path ends in a
    // .gguf file; nothing otherwise. The text is taken exactly as typed, spaces included.
    static std::optional<HubLink> parse(const QString &text);

    static QString hubHost() { return QStringLiteral("huggingface.co"); }
    static QString refusedMessage()
    {
        return QStringLiteral("Enter an HTTPS Hugging Face download link ending in .gguf.");
    }
};
