#pragma once

#include "MarkdownSegment.h"
#include "MarkdownStyle.h"

#include <QList>
#include <QPointer>
#include <QTextCharFormat>
#include <QTextCursor>
#include <QTextDocument>

class QTextTable;

// Writes a run of prose into a text document, unit by unit (a unit is one block at the
// top: a paragraph, a list, a table...). Showing new units keeps the leading ones that
// did not change and writes only the rest again, so a reply that grows lays out its
// last block only. Line breaks start blocks of their own. Markers of lists and task
// items are written as text, so copied text keeps them. Links get an anchor only for
// web and mail addresses.
class MarkdownDocumentWriter {
public:
    MarkdownDocumentWriter(QTextDocument *document, const MarkdownStyle &style);

    void show(const QList<MarkdownUnit> &units);
    // Forgets what was written, as when the style changes; the next show writes all.
    void reset();
    const QList<MarkdownUnit> &units() const { return m_units; }

    // The anchor a link to target gets: empty for what is not a web or mail address.
    static QString safeLink(const QString &target);

private:
    // Where a unit begins: the end of the document before it, and whether the last
    // block was then empty and free to take its first block (as after a table).
    struct Mark {
        int position = 0;
        bool fresh = false;
    };
    struct Container {
        MarkdownEvent::Kind kind;
        bool tight = false;
        int next = 1;
        int items = 0;
        // An item whose block is made and holds nothing yet.
        bool itemBlockFree = false;
    };

    // What the writer knows while it writes a unit.
    struct State {
        QList<Container> containers;
        QList<QTextCharFormat> spans;
        QTextCharFormat blockFormat;
        QTextTable *table = nullptr;
        int row = -1;
        int column = -1;
        bool headerRow = false;
        bool firstBlock = true;
        // The last block is empty and free to take the next block (as after a table).
        bool fresh = true;
        // Characters written inside the image span being read, to show a word when
        // its alt text is empty.
        int imageText = 0;
    };
    // What the writer knew just before the closing steps at the end of the last unit:
    // a last unit that only grew goes on from there instead of being written again.
    struct Tail {
        bool valid = false;
        qsizetype event = 0;
        int position = 0;
        State state;
    };

    void showFrom(const QList<MarkdownUnit> &units, qsizetype same);
    void truncate(int unit);
    void write(const MarkdownUnit &unit);
    // Writes events from the given one on, keeping the tail of the unit.
    void writeEvents(const MarkdownUnit &unit, qsizetype from);
    bool extendLastUnit(const MarkdownUnit &grown);
    void enter(const MarkdownEvent &event);
    void leave(const MarkdownEvent &event);
    void addText(const QString &text);
    void breakLine();
    void startBlock(QTextBlockFormat format, const QTextCharFormat &charFormat);
    // A paragraph-like block: in a free item block when there is one.
    void startTextBlock(qreal gap, const QTextCharFormat &charFormat, const QTextBlockFormat &extra = {});
    int depth() const;
    bool inQuote() const;
    QTextCharFormat baseFormat() const;

    QPointer<QTextDocument> m_document;
    MarkdownStyle m_style;
    QList<MarkdownUnit> m_units;
    QList<Mark> m_marks;
    Tail m_tail;

    // The unit being written.
    QTextCursor m_cursor;
    State m_state;
};
