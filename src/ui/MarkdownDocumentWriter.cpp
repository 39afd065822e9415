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
    m_state.fresh = true;
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
        m_marks.append({end.position(), m_state.fresh});
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
        m_state.fresh = true;
    } else {
        const Mark mark = m_marks.at(unit);
        QTextCursor cursor(m_document);
        cursor.setPosition(mark.position);
        cursor.movePosition(QTextCursor::End, QTextCursor::KeepAnchor);
        cursor.removeSelectedText();
        m_state.fresh = mark.fresh;
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
    m_state = m_tail.state;
    if (after.text.size() > before.text.size())
        addText(after.text.sliced(before.text.size()));
    writeEvents(grown, tail);
    return true;
}

void MarkdownDocumentWriter::write(const MarkdownUnit &unit)
{
    m_cursor = QTextCursor(m_document);
    m_cursor.movePosition(QTextCursor::End);
    m_state.firstBlock = m_cursor.position() == 0 && m_state.fresh;
    m_state.containers.clear();
    m_state.spans.clear();
    m_state.table = nullptr;
    m_state.blockFormat = baseFormat();
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
            m_tail = {true, tail, m_cursor.position(), m_state};
        const MarkdownEvent &event = unit.at(index);
        switch (event.type) {
        case Type::Enter:
            enter(event);
            break;
        case Type::Leave:
            leave(event);
            break;
        case Type::Text:
            if (event.kind == Kind::Break && !m_state.table && !m_state.fresh)
                breakLine();
            else
                addText(event.text);
            break;
        }
    }
    m_state.table = nullptr;
}

int MarkdownDocumentWriter::depth() const
{
    int depth = 0;
    for (const Container &container : m_state.containers) {
        if (container.kind != Kind::ListItem)
            ++depth;
    }
    return depth;
}

bool MarkdownDocumentWriter::inQuote() const
{
    for (const Container &container : m_state.containers) {
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
    if (m_state.firstBlock)
        format.setTopMargin(0);
    m_state.firstBlock = false;
    if (m_state.fresh) {
        m_cursor.setBlockFormat(format);
        m_cursor.setBlockCharFormat(charFormat);
        m_state.fresh = false;
        return;
    }
    m_cursor.insertBlock(format, charFormat);
}

void MarkdownDocumentWriter::startTextBlock(qreal gap, const QTextCharFormat &charFormat, const QTextBlockFormat &extra)
{
    m_state.blockFormat = charFormat;
    if (m_state.table)
        return;
    if (!m_state.containers.isEmpty() && m_state.containers.last().itemBlockFree) {
        m_state.containers.last().itemBlockFree = false;
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
    const bool tight = !m_state.containers.isEmpty() && m_state.containers.last().kind == Kind::ListItem
        && m_state.containers.size() > 1 && m_state.containers.at(m_state.containers.size() - 2).tight;
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
        m_state.containers.append({Kind::Quote});
        break;
    case Kind::BulletList:
    case Kind::OrderedList:
        m_state.containers.append({event.kind, event.flag, event.number});
        break;
    case Kind::ListItem: {
        Container *list = m_state.containers.isEmpty() ? nullptr : &m_state.containers.last();
        QString marker;
        if (list && !event.flag) {
            if (list->kind == Kind::OrderedList) {
                marker = QString::number(list->next++) + QLatin1Char('.');
            } else {
                static const QString bullets[] = {QStringLiteral("\u2022"), QStringLiteral("\u25e6"),
                                                  QStringLiteral("\u25aa")};
                int lists = 0;
                for (const Container &container : m_state.containers)
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
        m_state.containers.append({Kind::ListItem});
        QTextBlockFormat format;
        format.setLeftMargin(depth() * MarkdownStyle::indent);
        format.setTopMargin(itemGap);
        const QTextCharFormat charFormat = baseFormat();
        if (m_state.table)
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
        m_state.containers.last().itemBlockFree = true;
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
        if (m_state.table)
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
        format.setTopMargin(m_state.firstBlock ? 0 : MarkdownStyle::paragraphGap);
        m_state.firstBlock = false;
        if (!m_state.containers.isEmpty() && m_state.containers.last().itemBlockFree)
            m_state.containers.last().itemBlockFree = false;
        m_state.table = m_cursor.insertTable(1, std::max(1, event.number), format);
        m_state.fresh = false;
        m_state.row = -1;
        break;
    }
    case Kind::TableRow:
        if (!m_state.table)
            break;
        if (++m_state.row > 0)
            m_state.table->appendRows(1);
        m_state.headerRow = event.flag;
        m_state.column = -1;
        break;
    case Kind::TableCell: {
        if (!m_state.table || ++m_state.column >= m_state.table->columns())
            break;
        m_cursor = m_state.table->cellAt(m_state.row, m_state.column).firstCursorPosition();
        QTextBlockFormat format;
        if (event.number == 2)
            format.setAlignment(Qt::AlignHCenter);
        else if (event.number == 3)
            format.setAlignment(Qt::AlignRight);
        m_cursor.setBlockFormat(format);
        m_state.blockFormat = baseFormat();
        if (m_state.headerRow)
            m_state.blockFormat.setFontWeight(QFont::DemiBold);
        break;
    }
    case Kind::Emphasis:
    case Kind::Strong:
    case Kind::Strike:
    case Kind::Code:
    case Kind::Link:
    case Kind::Image: {
        QTextCharFormat format = m_state.spans.isEmpty() ? m_state.blockFormat : m_state.spans.last();
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
            m_state.imageText = 0;
        }
        m_state.spans.append(format);
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
        if (!m_state.containers.isEmpty())
            m_state.containers.removeLast();
        break;
    case Kind::Table:
        if (!m_state.table)
            break;
        m_state.table = nullptr;
        m_cursor.movePosition(QTextCursor::End);
        // A table is followed by an empty block; the next block takes it.
        m_state.fresh = true;
        break;
    case Kind::Image:
        // An image is its alt text, never a fetch; without one, a word says what it was.
        if (m_state.imageText == 0 && !m_state.spans.isEmpty())
            m_cursor.insertText(QStringLiteral("image"), m_state.spans.last());
        if (!m_state.spans.isEmpty())
            m_state.spans.removeLast();
        break;
    case Kind::Emphasis:
    case Kind::Strong:
    case Kind::Strike:
    case Kind::Code:
    case Kind::Link:
        if (!m_state.spans.isEmpty())
            m_state.spans.removeLast();
        break;
    default:
        m_state.blockFormat = baseFormat();
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
    if (!m_state.containers.isEmpty())
        m_state.containers.last().itemBlockFree = false;
}

void MarkdownDocumentWriter::addText(const QString &text)
{
    if (m_state.fresh && !m_state.table)
        startTextBlock(MarkdownStyle::paragraphGap, baseFormat());
    if (!m_state.containers.isEmpty())
        m_state.containers.last().itemBlockFree = false;
    m_state.imageText += static_cast<int>(text.size());
    m_cursor.insertText(text, m_state.spans.isEmpty() ? m_state.blockFormat : m_state.spans.last());
}
