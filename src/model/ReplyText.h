#pragma once

#include <QString>

// A reply's two parts. Reasoning models write their reasoning first, inside a
// <think> … </think> section; the reply keeps it there, at its start (white space
// before it allowed), and the rest is the answer. The engine leaves such a section out
// of later prompts, so a reply is sent back as it is stored.
struct ReplyText {
    static constexpr QStringView open = u"<think>";
    static constexpr QStringView close = u"</think>";

    // The section's text without the tags; empty when there is none.
    QString reasoning;
    // What follows the section, white space at its start left out; the whole text
    // when there is no section, and empty while the section is still open.
    QString answer;
    bool hasReasoning = false;
    // The section has no closing tag (yet).
    bool reasoningOpen = false;

    static ReplyText split(const QString &text);
    // Where the answer starts in text: 0 without a section, text's size while open.
    static qsizetype answerStart(const QString &text);
};
