#pragma once

#include "MarkdownSegment.h"

#include <QList>
#include <QString>

// Reads a reply's Markdown with md4c: CommonMark with tables, strikethrough, task lists
// and autolinks. The result is what the transcript shows, segment by segment; raw HTML
// comes out as plain text and images as their alt text. A reply is untrusted, so the
// output is bounded: deeper nesting is flattened, long tables are cut with a note, and
// past a number of steps the rest is kept as plain text.
namespace MarkdownParser {

struct Limits {
    // Lists and quotes inside each other; deeper ones add no more indentation.
    int depth = 8;
    // Emphasis, links and the like inside each other.
    int spanDepth = 8;
    // Rows and columns of a table; the rest is counted in a note below it.
    int tableRows = 200;
    int tableColumns = 20;
    // Recorded steps for the whole reply; past them, text only.
    int events = 40000;
};

QList<MarkdownSegment> parse(const QString &markdown, const Limits &limits = {});

} // namespace MarkdownParser
