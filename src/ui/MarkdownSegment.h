#pragma once

#include <QList>
#include <QMetaType>
#include <QString>

// One step of a reply's parsed Markdown, as the prose writer replays it: a block or a
// span opens or closes, or text comes. Only what the transcript shows is kept: no
// image addresses, no raw HTML as markup.
struct MarkdownEvent {
    enum class Type : quint8 { Enter, Leave, Text };
    enum class Kind : quint8 {
        // Blocks.
        Paragraph,
        Heading, // number: level 1 to 6
        Html,    // a raw HTML block, shown as its text
        Note,    // a line of ours: what a limit left out
        Quote,
        BulletList,  // flag: tight
        OrderedList, // number: the next item's number; flag: tight
        ListItem,    // number: 0 plain, 1 open task, 2 done task; flag: continues an item
        Rule,
        Table,     // number: columns shown
        TableRow,  // flag: header row
        TableCell, // number: alignment (0 default, 1 left, 2 centre, 3 right)
        // Spans.
        Emphasis,
        Strong,
        Strike,
        Code,
        Link,  // text: the target as written
        Image, // its alt text follows; the source is never kept
        // Texts.
        Plain,
        Break,
    };

    Type type = Type::Text;
    Kind kind = Kind::Plain;
    bool flag = false;
    int number = 0;
    QString text;

    bool operator==(const MarkdownEvent &other) const = default;
};

// A block at the top of a run of prose, with everything inside it.
using MarkdownUnit = QList<MarkdownEvent>;

// A reply is shown as segments: runs of prose, each one selectable text, and code
// blocks between them, each with its own frame and copy button.
struct MarkdownSegment {
    enum class Kind : quint8 { Prose, Code };

    Kind kind = Kind::Prose;
    QList<MarkdownUnit> units;
    // A code block: its fence's language, its text, and how many lists and quotes it
    // sits in.
    QString language;
    QString code;
    int indent = 0;

    bool operator==(const MarkdownSegment &other) const = default;
};

Q_DECLARE_METATYPE(QList<MarkdownUnit>)
