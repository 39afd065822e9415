#pragma once

#include <QColor>
#include <QString>

// How a reply's prose looks: the colours come from the theme, the sizes suit the
// message text's 15 points.
struct MarkdownStyle {
    QColor text;
    QColor secondary;
    QColor link;
    // Behind inline code, and the lines of tables.
    QColor codeFill;
    QColor hairline;
    QString monospaceFamily = QStringLiteral("DejaVu Sans Mono");
    qreal bodySize = 15;

    // A heading's size in pixels, level 1 to 6.
    qreal headingSize(int level) const
    {
        switch (level) {
        case 1:
            return bodySize + 7;
        case 2:
            return bodySize + 4;
        case 3:
            return bodySize + 2;
        default:
            return bodySize;
        }
    }
    qreal codeSize() const { return bodySize - 1; }
    // One step of indentation for lists and quotes.
    static constexpr qreal indent = 22;
    // Space above a paragraph, a heading, and an item of a tight list.
    static constexpr qreal paragraphGap = 10;
    static constexpr qreal headingGap = 16;
    static constexpr qreal itemGap = 3;

    bool operator==(const MarkdownStyle &other) const = default;
};
