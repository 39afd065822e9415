#include "MarkdownDocumentWriter.h"

#include <QFont>
#include <QFontMetricsF>
#include <QRegularExpression>
#include <QTextBlock>
#include <QTextTable>
#include <QUrl>

using Kind = MarkdownEvent::Kind;
using Type = MarkdownEvent::Type;

MarkdownDocumentWriter::MarkdownDocumentWriter(QTextDocument *document, const MarkdownStyle &style)
    : m_document(document), m_style(style)
{
    if (m_document) {
        m_document->setUndoRedoEnabled(false);
        m_document->setIndentWidth(MarkdownStyle::indent);
    }
}

QString MarkdownDocumentWriter::safeLink(const QString &target)
{
    const QString trimmed = target.trimmed();
    if (trimmed.startsWith(QLatin1String("www."), Qt::CaseInsensitive))
        return QStringLiteral("http://") + trimmed;
    // An address that autolinking found without its scheme.
    static const QRegularExpression mailAddress(QStringLiteral("^[^@/:\\s]+@[^@/:\\s]+\\.[^@/:\\s]+$"));
    if (mailAddress.match(trimmed).hasMatch())
        return QStringLiteral("mailto:") + trimmed;
    const QUrl url(trimmed);
    const QString scheme = url.scheme().toLower();
    if (!url.isValid()
        || (scheme != QLatin1String("http") && scheme != QLatin1String("https") && scheme != QLatin1String("mailto")))
        return {};
    if (scheme != QLatin1String("mailto") && url.host().isEmpty())
        return {};
    return url.toString(QUrl::FullyEncoded);
}

void MarkdownDocumentWriter::reset()
{
    m_units.clear();
    m_marks.clear();
    if (m_document)
        m_document->clear();
    m_fresh = true;
}

void MarkdownDocumentWriter::show(const QList<MarkdownUnit> &units)
{
    if (!m_document)
        return;
    qsizetype same = 0;
    while (same < units.size() && same < m_units.size() && units.at(same) == m_units.at(same))
        ++same;
    if (same == units.size() && same == m_units.size())
        return;
    // One change for the document's layout, not one per piece of text: a paragraph of
    // many spans would otherwise be laid out again for each of them.
    QTextCursor edit(m_document);
    edit.beginEditBlock();
    showFrom(units, same);
    edit.endEditBlock();
}

void MarkdownDocumentWriter::showFrom(const QList<MarkdownUnit> &units, qsizetype same)
{
    if (same + 1 == units.size() && same + 1 == m_units.size() && extendLastUnit(units.last())) {
        m_units.last() = units.last();
        return;
    }
    truncate(static_cast<int>(same));
    for (qsizetype index = same; index < units.size(); ++index) {
        QTextCursor end(m_document);
        end.movePosition(QTextCursor::End);
        m_marks.append({end.position(), m_fresh});
        write(units.at(index));
        m_units.append(units.at(index));
    }
}

void MarkdownDocumentWriter::truncate(int unit)
{
    if (unit >= m_units.size())
        return;
    if (unit == 0) {
        // Emptied in place rather than cleared, which would end the edit under way.
        QTextCursor cursor(m_document);
        cursor.select(QTextCursor::Document);
        cursor.removeSelectedText();
        cursor.setBlockFormat(QTextBlockFormat());
        cursor.setBlockCharFormat(QTextCharFormat());
        m_fresh = true;
    } else {
        const Mark mark = m_marks.at(unit);
        QTextCursor cursor(m_document);
        cursor.setPosition(mark.position);
        cursor.movePosition(QTextCursor::End, QTextCursor::KeepAnchor);
        cursor.removeSelectedText();
        m_fresh = mark.fresh;
    }
    m_units.resize(unit);
    m_marks.resize(unit);
    m_tail.valid = false;
}

bool MarkdownDocumentWriter::extendLastUnit(const MarkdownUnit &grown)
{
    const MarkdownUnit &shown = m_units.last();
    const qsizetype tail = m_tail.event;
    if (!m_tail.valid || tail == 0 || grown.size() < tail)
        return false;
    // The same steps up to the last text, which may only have grown.
    for (qsizetype index = 0; index + 1 < tail; ++index) {
        if (shown.at(index) != grown.at(index))
            return false;
    }
    const MarkdownEvent &before = shown.at(tail - 1);
    const MarkdownEvent &after = grown.at(tail - 1);
    if (before.type != after.type || before.kind != after.kind)
        return false;
    if (before != after && (before.type != Type::Text || !after.text.startsWith(before.text)))
        return false;
    // An empty image says "image" as it closes; that word is not to be written after.
    for (qsizetype index = tail; index < shown.size(); ++index) {
        if (shown.at(index).kind == Kind::Image)
            return false;
    }
    m_cursor = QTextCursor(m_document);
    m_cursor.setPosition(m_tail.position);
    m_containers = m_tail.containers;
    m_spans = m_tail.spans;
    m_blockFormat = m_tail.blockFormat;
    m_table = m_tail.table;
    m_row = m_tail.row;
    m_column = m_tail.column;
    m_headerRow = m_tail.headerRow;
    m_firstBlock = m_tail.firstBlock;
    m_fresh = m_tail.fresh;
    m_imageText = m_tail.imageText;
    if (after.text.size() > before.text.size())
        addText(after.text.sliced(before.text.size()));
    writeEvents(grown, tail);
    return true;
}

void MarkdownDocumentWriter::write(const MarkdownUnit &unit)
{
    m_cursor = QTextCursor(m_document);
    m_cursor.movePosition(QTextCursor::End);
    m_firstBlock = m_cursor.position() == 0 && m_fresh;
    m_containers.clear();
    m_spans.clear();
    m_table = nullptr;
    m_blockFormat = baseFormat();
    writeEvents(unit, 0);
}

void MarkdownDocumentWriter::writeEvents(const MarkdownUnit &unit, qsizetype from)
{
    qsizetype tail = unit.size();
    while (tail > 0 && unit.at(tail - 1).type == Type::Leave)
        --tail;
    m_tail.valid = false;
    for (qsizetype index = from; index < unit.size(); ++index) {
        if (index == tail)
            m_tail = {true,  tail,     m_cursor.position(), m_containers, m_spans, m_blockFormat, m_table,
                      m_row, m_column, m_headerRow,         m_firstBlock, m_fresh, m_imageText};
        const MarkdownEvent &event = unit.at(index);
        switch (event.type) {
        case Type::Enter:
            enter(event);
            break;
        case Type::Leave:
            leave(event);
            break;
        case Type::Text:
            if (event.kind == Kind::Break && !m_table && !m_fresh)
                breakLine();
            else
                addText(event.text);
            break;
        }
    }
    m_table = nullptr;
}

int MarkdownDocumentWriter::depth() const
{
    int depth = 0;
    for (const Container &container : m_containers) {
        if (container.kind != Kind::ListItem)
            ++depth;
    }
    return depth;
}

bool MarkdownDocumentWriter::inQuote() const
{
    for (const Container &container : m_containers) {
        if (container.kind == Kind::Quote)
            return true;
    }
    return false;
}

QTextCharFormat MarkdownDocumentWriter::baseFormat() const
{
    QTextCharFormat format;
    format.setForeground(inQuote() ? m_style.secondary : m_style.text);
    return format;
}

void MarkdownDocumentWriter::startBlock(QTextBlockFormat format, const QTextCharFormat &charFormat)
{
    if (m_firstBlock)
        format.setTopMargin(0);
    m_firstBlock = false;
    if (m_fresh) {
        m_cursor.setBlockFormat(format);
        m_cursor.setBlockCharFormat(charFormat);
        m_fresh = false;
        return;
    }
    m_cursor.insertBlock(format, charFormat);
}

void MarkdownDocumentWriter::startTextBlock(qreal gap, const QTextCharFormat &charFormat, const QTextBlockFormat &extra)
{
    m_blockFormat = charFormat;
    if (m_table)
        return;
    if (!m_containers.isEmpty() && m_containers.last().itemBlockFree) {
        m_containers.last().itemBlockFree = false;
        return;
    }
    QTextBlockFormat format = extra;
    format.setLeftMargin(depth() * MarkdownStyle::indent);
    format.setTopMargin(gap);
    startBlock(format, charFormat);
}

void MarkdownDocumentWriter::enter(const MarkdownEvent &event)
{
    // Inside a tight list, blocks sit close together.
    const bool tight = !m_containers.isEmpty() && m_containers.last().kind == Kind::ListItem && m_containers.size() > 1
        && m_containers.at(m_containers.size() - 2).tight;
    const qreal gap = tight ? MarkdownStyle::itemGap : MarkdownStyle::paragraphGap;
    switch (event.kind) {
    case Kind::Paragraph:
    case Kind::Html:
        startTextBlock(gap, baseFormat());
        break;
    case Kind::Heading: {
        QTextCharFormat format = baseFormat();
        format.setProperty(QTextFormat::FontPixelSize, m_style.headingSize(event.number));
        format.setFontWeight(event.number <= 2 ? QFont::Bold : QFont::DemiBold);
        if (event.number >= 5)
            format.setForeground(m_style.secondary);
        QTextBlockFormat block;
        block.setBottomMargin(2);
        startTextBlock(MarkdownStyle::headingGap, format, block);
        break;
    }
    case Kind::Note: {
        QTextCharFormat format = baseFormat();
        format.setForeground(m_style.secondary);
        format.setFontItalic(true);
        startTextBlock(MarkdownStyle::itemGap * 2, format);
        break;
    }
    case Kind::Quote:
        m_containers.append({Kind::Quote});
        break;
    case Kind::BulletList:
    case Kind::OrderedList:
        m_containers.append({event.kind, event.flag, event.number});
        break;
    case Kind::ListItem: {
        Container *list = m_containers.isEmpty() ? nullptr : &m_containers.last();
        QString marker;
        if (list && !event.flag) {
            if (list->kind == Kind::OrderedList) {
                marker = QString::number(list->next++) + QLatin1Char('.');
            } else {
                static const QString bullets[] = {QStringLiteral("\u2022"), QStringLiteral("\u25e6"),
                                                  QStringLiteral("\u25aa")};
                int lists = 0;
                for (const Container &container : m_containers)
                    lists += container.kind == Kind::BulletList ? 1 : 0;
                marker = bullets[(lists - 1) % 3];
            }
            marker += QLatin1Char(' ');
            if (event.number == 1)
                marker += QStringLiteral("\u2610 ");
            else if (event.number == 2)
                marker += QStringLiteral("\u2611 ");
        }
        const bool first = list && list->items++ == 0;
        const qreal itemGap = list && list->tight && !first ? MarkdownStyle::itemGap : MarkdownStyle::paragraphGap;
        const bool bulleted = list && list->kind == Kind::BulletList;
        // The list pointer does not outlive this append.
        m_containers.append({Kind::ListItem});
        QTextBlockFormat format;
        format.setLeftMargin(depth() * MarkdownStyle::indent);
        format.setTopMargin(itemGap);
        const QTextCharFormat charFormat = baseFormat();
        if (m_table)
            break;
        startBlock(format, charFormat);
        if (!marker.isEmpty()) {
            // The marker hangs in the margin, so wrapped lines align with the text.
            QFont font = m_document->defaultFont();
            const qreal width = QFontMetricsF(font).horizontalAdvance(marker);
            format.setTextIndent(-width);
            m_cursor.setBlockFormat(format);
            QTextCharFormat markerFormat = charFormat;
            if (bulleted)
                markerFormat.setForeground(m_style.secondary);
            m_cursor.insertText(marker, markerFormat);
        }
        m_containers.last().itemBlockFree = true;
        break;
    }
    case Kind::Rule: {
        QTextBlockFormat format;
        format.setProperty(QTextFormat::BlockTrailingHorizontalRulerWidth,
                           QTextLength(QTextLength::PercentageLength, 100));
        format.setLeftMargin(depth() * MarkdownStyle::indent);
        format.setTopMargin(MarkdownStyle::paragraphGap);
        QTextCharFormat charFormat = baseFormat();
        charFormat.setForeground(m_style.hairline);
        startBlock(format, charFormat);
        break;
    }
    case Kind::Table: {
        if (m_table)
            break;
        QTextTableFormat format;
        format.setBorder(1);
        format.setBorderBrush(m_style.hairline);
        format.setBorderStyle(QTextFrameFormat::BorderStyle_Solid);
        format.setBorderCollapse(true);
        format.setCellPadding(5);
        format.setCellSpacing(0);
        format.setHeaderRowCount(1);
        format.setLeftMargin(depth() * MarkdownStyle::indent);
        format.setTopMargin(m_firstBlock ? 0 : MarkdownStyle::paragraphGap);
        m_firstBlock = false;
        if (!m_containers.isEmpty() && m_containers.last().itemBlockFree)
            m_containers.last().itemBlockFree = false;
        m_table = m_cursor.insertTable(1, std::max(1, event.number), format);
        m_fresh = false;
        m_row = -1;
        break;
    }
    case Kind::TableRow:
        if (!m_table)
            break;
        if (++m_row > 0)
            m_table->appendRows(1);
        m_headerRow = event.flag;
        m_column = -1;
        break;
    case Kind::TableCell: {
        if (!m_table || ++m_column >= m_table->columns())
            break;
        m_cursor = m_table->cellAt(m_row, m_column).firstCursorPosition();
        QTextBlockFormat format;
        if (event.number == 2)
            format.setAlignment(Qt::AlignHCenter);
        else if (event.number == 3)
            format.setAlignment(Qt::AlignRight);
        m_cursor.setBlockFormat(format);
        m_blockFormat = baseFormat();
        if (m_headerRow)
            m_blockFormat.setFontWeight(QFont::DemiBold);
        break;
    }
    case Kind::Emphasis:
    case Kind::Strong:
    case Kind::Strike:
    case Kind::Code:
    case Kind::Link:
    case Kind::Image: {
        QTextCharFormat format = m_spans.isEmpty() ? m_blockFormat : m_spans.last();
        if (event.kind == Kind::Emphasis) {
            format.setFontItalic(true);
        } else if (event.kind == Kind::Strong) {
            format.setFontWeight(QFont::Bold);
        } else if (event.kind == Kind::Strike) {
            format.setFontStrikeOut(true);
        } else if (event.kind == Kind::Code) {
            format.setFontFamilies({m_style.monospaceFamily});
            format.setProperty(QTextFormat::FontPixelSize, m_style.codeSize());
            format.setBackground(m_style.codeFill);
        } else if (event.kind == Kind::Link) {
            const QString href = safeLink(event.text);
            if (!href.isEmpty()) {
                format.setAnchor(true);
                format.setAnchorHref(href);
                format.setForeground(m_style.link);
                format.setFontUnderline(true);
            }
        } else {
            format.setForeground(m_style.secondary);
            format.setFontItalic(true);
            m_imageText = 0;
        }
        m_spans.append(format);
        break;
    }
    case Kind::Plain:
    case Kind::Break:
        break;
    }
}

void MarkdownDocumentWriter::leave(const MarkdownEvent &event)
{
    switch (event.kind) {
    case Kind::Quote:
    case Kind::BulletList:
    case Kind::OrderedList:
    case Kind::ListItem:
        if (!m_containers.isEmpty())
            m_containers.removeLast();
        break;
    case Kind::Table:
        if (!m_table)
            break;
        m_table = nullptr;
        m_cursor.movePosition(QTextCursor::End);
        // A table is followed by an empty block; the next block takes it.
        m_fresh = true;
        break;
    case Kind::Image:
        // An image is its alt text, never a fetch; without one, a word says what it was.
        if (m_imageText == 0 && !m_spans.isEmpty())
            m_cursor.insertText(QStringLiteral("image"), m_spans.last());
        if (!m_spans.isEmpty())
            m_spans.removeLast();
        break;
    case Kind::Emphasis:
    case Kind::Strong:
    case Kind::Strike:
    case Kind::Code:
    case Kind::Link:
        if (!m_spans.isEmpty())
            m_spans.removeLast();
        break;
    default:
        m_blockFormat = baseFormat();
        break;
    }
}

void MarkdownDocumentWriter::breakLine()
{
    // A block of its own, close under the line before, looks like a line break; a
    // block that grows is laid out again alone, so a long paragraph streams cheaply.
    QTextBlockFormat format = m_cursor.blockFormat();
    format.setTopMargin(0);
    format.setTextIndent(0);
    m_cursor.insertBlock(format, m_cursor.blockCharFormat());
    if (!m_containers.isEmpty())
        m_containers.last().itemBlockFree = false;
}

void MarkdownDocumentWriter::addText(const QString &text)
{
    if (m_fresh && !m_table)
        startTextBlock(MarkdownStyle::paragraphGap, baseFormat());
    if (!m_containers.isEmpty())
        m_containers.last().itemBlockFree = false;
    m_imageText += static_cast<int>(text.size());
    m_cursor.insertText(text, m_spans.isEmpty() ? m_blockFormat : m_spans.last());
}
