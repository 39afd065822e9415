#include "MarkdownParser.h"

#include <QByteArray>
#include <QLocale>
#include <md4c-html.h>
#include <md4c.h>
#include <optional>
#include <vector>

namespace {

using Event = MarkdownEvent;
using Kind = MarkdownEvent::Kind;
using Type = MarkdownEvent::Type;

QString utf8(const MD_CHAR *text, MD_SIZE size)
{
    return QString::fromUtf8(text, static_cast<qsizetype>(size));
}

void appendHtml(const MD_CHAR *text, MD_SIZE size, void *output)
{
    static_cast<QByteArray *>(output)->append(text, static_cast<qsizetype>(size));
}

// An entity as CommonMark reads it (&copy;, &#169;, &#xA9;), through md4c's own HTML
// renderer and its table of names; one it does not know stays as written.
QString decodeEntity(const MD_CHAR *text, MD_SIZE size)
{
    QByteArray html;
    if (md_html(text, size, appendHtml, &html, 0, 0) != 0)
        return utf8(text, size);
    html = html.trimmed();
    if (!html.startsWith("<p>") || !html.endsWith("</p>"))
        return utf8(text, size);
    QString decoded = QString::fromUtf8(html.mid(3, html.size() - 7));
    // The renderer escapes what HTML would read as markup; this is text.
    decoded.replace(QLatin1String("&lt;"), QLatin1String("<"));
    decoded.replace(QLatin1String("&gt;"), QLatin1String(">"));
    decoded.replace(QLatin1String("&quot;"), QLatin1String("\""));
    decoded.replace(QLatin1String("&amp;"), QLatin1String("&"));
    return decoded;
}

// An attribute (a link's target, a fence's language) with its entities read.
QString attributeText(const MD_ATTRIBUTE &attribute)
{
    QString text;
    if (!attribute.substr_offsets)
        return utf8(attribute.text, attribute.size);
    for (int part = 0; attribute.substr_offsets[part] < attribute.size; ++part) {
        const MD_OFFSET begin = attribute.substr_offsets[part];
        const MD_OFFSET end = attribute.substr_offsets[part + 1];
        switch (attribute.substr_types[part]) {
        case MD_TEXT_ENTITY:
            text += decodeEntity(attribute.text + begin, end - begin);
            break;
        case MD_TEXT_NULLCHAR:
            text += QChar::ReplacementCharacter;
            break;
        default:
            text += utf8(attribute.text + begin, end - begin);
        }
    }
    return text;
}

bool isContainer(Kind kind)
{
    return kind == Kind::Quote || kind == Kind::BulletList || kind == Kind::OrderedList || kind == Kind::ListItem;
}

// Receives md4c's callbacks and records the segments.
class Recorder {
public:
    explicit Recorder(const MarkdownParser::Limits &limits) : m_limits(limits) {}

    int enterBlock(MD_BLOCKTYPE type, void *detail);
    int leaveBlock(MD_BLOCKTYPE type);
    int enterSpan(MD_SPANTYPE type, void *detail);
    int leaveSpan();
    int text(MD_TEXTTYPE type, const MD_CHAR *text, MD_SIZE size);
    QList<MarkdownSegment> finish();

private:
    // What became of one md4c block: recorded, passed over (its inside still counts),
    // hidden with everything inside it, or the code block being read.
    enum class Fate : quint8 { Recorded, Passed, Hidden, Code };
    // A recorded block that is still open. After a code block the containers around it
    // are closed in one segment and opened again in the next, as they are written.
    struct Open {
        Event enter;
        bool written = true;
        bool synthetic = false;
    };

    bool plain() const { return m_recorded >= m_limits.events; }
    int containerDepth() const;
    void record(const Event &event);
    void enter(Kind kind, int number = 0, bool flag = false);
    void leave();
    // Opens again what a code block closed, before anything is written inside it.
    void reopen();
    // Plain text of the current block; outside one, a paragraph is opened for it.
    void addText(const QString &text, Kind kind = Kind::Plain);
    void endProse();
    void startCode(const MD_BLOCK_CODE_DETAIL *detail);
    void endCode();
    void tableNote();

    MarkdownParser::Limits m_limits;
    QList<MarkdownSegment> m_segments;
    MarkdownSegment m_prose;
    MarkdownUnit m_unit;
    int m_unitDepth = 0;
    MarkdownSegment m_code;
    std::vector<Fate> m_blocks;
    std::vector<Open> m_open;
    // Per md4c span: the kind recorded for it, or none when it was left out.
    std::vector<std::optional<Kind>> m_spans;
    int m_spanDepth = 0;
    int m_hidden = 0;
    int m_recorded = 0;
    // The table being read: its size as written and where its reading is.
    int m_tableColumns = 0;
    int m_tableRows = 0;
    int m_row = -1;
    int m_column = -1;
};

int Recorder::containerDepth() const
{
    int depth = 0;
    for (const Open &open : m_open) {
        if (open.enter.kind == Kind::Quote || open.enter.kind == Kind::BulletList
            || open.enter.kind == Kind::OrderedList)
            ++depth;
    }
    return depth;
}

void Recorder::record(const Event &event)
{
    ++m_recorded;
    if (event.type == Type::Text && !m_unit.isEmpty()) {
        Event &last = m_unit.last();
        if (last.type == Type::Text && last.kind == Kind::Plain && event.kind == Kind::Plain) {
            last.text += event.text;
            return;
        }
    }
    m_unit.append(event);
    if (event.type == Type::Enter) {
        ++m_unitDepth;
    } else if (event.type == Type::Leave && --m_unitDepth == 0) {
        m_prose.units.append(m_unit);
        m_unit.clear();
    }
}

void Recorder::reopen()
{
    for (Open &open : m_open) {
        if (open.written)
            continue;
        Event again = open.enter;
        // The item goes on without a second marker; its list counts on from it.
        if (again.kind == Kind::ListItem) {
            again.flag = true;
            again.number = 0;
        }
        record(again);
        open.written = true;
    }
}

void Recorder::enter(Kind kind, int number, bool flag)
{
    reopen();
    // A list item takes its list's number; the list then counts on.
    if (kind == Kind::ListItem && !m_open.empty() && m_open.back().enter.kind == Kind::OrderedList)
        ++m_open.back().enter.number;
    const Event event{Type::Enter, kind, flag, number, {}};
    record(event);
    m_open.push_back({event, true, false});
}

void Recorder::leave()
{
    const Open open = m_open.back();
    m_open.pop_back();
    if (open.written)
        record({Type::Leave, open.enter.kind, false, 0, {}});
}

void Recorder::addText(const QString &text, Kind kind)
{
    if (text.isEmpty())
        return;
    reopen();
    const Kind around = m_open.empty() ? Kind::Plain : m_open.back().enter.kind;
    const bool inBlock = !m_open.empty() && around != Kind::Quote && around != Kind::BulletList
        && around != Kind::OrderedList && around != Kind::Table && around != Kind::TableRow;
    if (!inBlock) {
        // Text outside a block only comes once formatting has stopped; it gets a
        // paragraph of its own, closed before the block around it.
        enter(Kind::Paragraph);
        m_open.back().synthetic = true;
    }
    record({Type::Text, kind, false, 0, text});
}

void Recorder::endProse()
{
    // Closed here, opened again after the code block.
    for (auto open = m_open.rbegin(); open != m_open.rend(); ++open) {
        if (open->written) {
            record({Type::Leave, open->enter.kind, false, 0, {}});
            open->written = false;
        }
    }
    if (!m_prose.units.isEmpty())
        m_segments.append(m_prose);
    m_prose = MarkdownSegment();
}

void Recorder::startCode(const MD_BLOCK_CODE_DETAIL *detail)
{
    endProse();
    m_code = MarkdownSegment();
    m_code.kind = MarkdownSegment::Kind::Code;
    m_code.language = attributeText(detail->lang);
    m_code.indent = containerDepth();
}

void Recorder::endCode()
{
    if (m_code.code.endsWith(QLatin1Char('\n')))
        m_code.code.chop(1);
    m_segments.append(m_code);
    m_code = MarkdownSegment();
}

void Recorder::tableNote()
{
    const int rowsLeft = m_tableRows - m_limits.tableRows;
    const int columnsLeft = m_tableColumns - m_limits.tableColumns;
    if (rowsLeft <= 0 && columnsLeft <= 0)
        return;
    const QLocale locale;
    QStringList parts;
    if (rowsLeft > 0)
        parts.append(rowsLeft == 1 ? QStringLiteral("1 more row")
                                   : QStringLiteral("%1 more rows").arg(locale.toString(rowsLeft)));
    if (columnsLeft > 0)
        parts.append(columnsLeft == 1 ? QStringLiteral("1 more column")
                                      : QStringLiteral("%1 more columns").arg(locale.toString(columnsLeft)));
    enter(Kind::Note);
    record({Type::Text, Kind::Plain, false, 0,
            QStringLiteral("The table goes on with %1, not shown here.").arg(parts.join(QStringLiteral(" and ")))});
    leave();
}

int Recorder::enterBlock(MD_BLOCKTYPE type, void *detail)
{
    if (m_hidden > 0 || (plain() && type != MD_BLOCK_CODE)) {
        if (m_hidden > 0)
            ++m_hidden;
        m_blocks.push_back(m_hidden > 0 ? Fate::Hidden : Fate::Passed);
        return 0;
    }
    Fate fate = Fate::Recorded;
    switch (type) {
    case MD_BLOCK_DOC:
    case MD_BLOCK_THEAD:
    case MD_BLOCK_TBODY:
        fate = Fate::Passed;
        break;
    case MD_BLOCK_QUOTE:
    case MD_BLOCK_UL:
    case MD_BLOCK_OL:
        if (containerDepth() >= m_limits.depth) {
            fate = Fate::Passed;
        } else if (type == MD_BLOCK_QUOTE) {
            enter(Kind::Quote);
        } else if (type == MD_BLOCK_UL) {
            enter(Kind::BulletList, 0, static_cast<const MD_BLOCK_UL_DETAIL *>(detail)->is_tight != 0);
        } else {
            const auto *list = static_cast<const MD_BLOCK_OL_DETAIL *>(detail);
            enter(Kind::OrderedList, static_cast<int>(std::min(list->start, 999999999u)), list->is_tight != 0);
        }
        break;
    case MD_BLOCK_LI: {
        // An item of a list passed over for depth is passed over with it.
        const bool listRecorded = !m_blocks.empty() && m_blocks.back() == Fate::Recorded;
        if (!listRecorded) {
            fate = Fate::Passed;
            break;
        }
        const auto *item = static_cast<const MD_BLOCK_LI_DETAIL *>(detail);
        int task = 0;
        if (item->is_task)
            task = item->task_mark == ' ' ? 1 : 2;
        enter(Kind::ListItem, task);
        break;
    }
    case MD_BLOCK_HR:
        enter(Kind::Rule);
        break;
    case MD_BLOCK_H:
        enter(Kind::Heading, static_cast<int>(static_cast<const MD_BLOCK_H_DETAIL *>(detail)->level));
        break;
    case MD_BLOCK_P:
        enter(Kind::Paragraph);
        break;
    case MD_BLOCK_HTML:
        enter(Kind::Html);
        break;
    case MD_BLOCK_CODE:
        if (plain()) {
            fate = Fate::Passed;
            break;
        }
        startCode(static_cast<const MD_BLOCK_CODE_DETAIL *>(detail));
        fate = Fate::Code;
        break;
    case MD_BLOCK_TABLE: {
        const auto *table = static_cast<const MD_BLOCK_TABLE_DETAIL *>(detail);
        m_tableColumns = static_cast<int>(std::min(table->col_count, 1000000u));
        m_tableRows = static_cast<int>(std::min(table->body_row_count, 100000000u));
        m_row = -1;
        enter(Kind::Table, std::min(m_tableColumns, m_limits.tableColumns));
        break;
    }
    case MD_BLOCK_TR:
        m_column = -1;
        // The header row and as many body rows as the limit allows.
        if (++m_row > m_limits.tableRows) {
            fate = Fate::Hidden;
            m_hidden = 1;
        } else {
            enter(Kind::TableRow, 0, m_row == 0);
        }
        break;
    case MD_BLOCK_TH:
    case MD_BLOCK_TD:
        if (++m_column >= m_limits.tableColumns) {
            fate = Fate::Hidden;
            m_hidden = 1;
        } else {
            enter(Kind::TableCell, static_cast<int>(static_cast<const MD_BLOCK_TD_DETAIL *>(detail)->align));
        }
        break;
    }
    m_blocks.push_back(fate);
    return 0;
}

int Recorder::leaveBlock(MD_BLOCKTYPE type)
{
    const Fate fate = m_blocks.back();
    m_blocks.pop_back();
    switch (fate) {
    case Fate::Hidden:
        --m_hidden;
        break;
    case Fate::Code:
        endCode();
        break;
    case Fate::Recorded:
        while (m_open.back().synthetic)
            leave();
        if (type == MD_BLOCK_HTML && !m_unit.isEmpty() && m_unit.last().type == Type::Text
            && m_unit.last().text.endsWith(QChar::LineSeparator))
            m_unit.last().text.chop(1);
        leave();
        if (type == MD_BLOCK_TABLE)
            tableNote();
        break;
    case Fate::Passed:
        // Once formatting has stopped, blocks still end their lines.
        if (plain() && m_hidden == 0 && type != MD_BLOCK_DOC && type != MD_BLOCK_UL && type != MD_BLOCK_OL
            && type != MD_BLOCK_QUOTE)
            addText(QString(QChar::LineSeparator), Kind::Plain);
        break;
    }
    return 0;
}

int Recorder::enterSpan(MD_SPANTYPE type, void *detail)
{
    Event event{Type::Enter, Kind::Plain, false, 0, {}};
    switch (type) {
    case MD_SPAN_EM:
        event.kind = Kind::Emphasis;
        break;
    case MD_SPAN_STRONG:
        event.kind = Kind::Strong;
        break;
    case MD_SPAN_DEL:
        event.kind = Kind::Strike;
        break;
    case MD_SPAN_CODE:
        event.kind = Kind::Code;
        break;
    case MD_SPAN_A:
        event.kind = Kind::Link;
        break;
    case MD_SPAN_IMG:
        event.kind = Kind::Image;
        break;
    default:
        // Extensions not turned on.
        m_spans.push_back(std::nullopt);
        return 0;
    }
    if (m_hidden > 0 || plain() || m_spanDepth >= m_limits.spanDepth) {
        m_spans.push_back(std::nullopt);
        return 0;
    }
    // An image's source is left behind here: nothing ever fetches it.
    if (type == MD_SPAN_A)
        event.text = attributeText(static_cast<const MD_SPAN_A_DETAIL *>(detail)->href);
    ++m_spanDepth;
    m_spans.push_back(event.kind);
    reopen();
    record(event);
    return 0;
}

int Recorder::leaveSpan()
{
    const std::optional<Kind> kind = m_spans.back();
    m_spans.pop_back();
    if (!kind)
        return 0;
    --m_spanDepth;
    record({Type::Leave, *kind, false, 0, {}});
    return 0;
}

int Recorder::text(MD_TEXTTYPE type, const MD_CHAR *text, MD_SIZE size)
{
    if (m_hidden > 0)
        return 0;
    if (!m_blocks.empty() && m_blocks.back() == Fate::Code) {
        m_code.code += type == MD_TEXT_NULLCHAR ? QString(QChar::ReplacementCharacter) : utf8(text, size);
        return 0;
    }
    switch (type) {
    case MD_TEXT_NULLCHAR:
        addText(QString(QChar::ReplacementCharacter));
        break;
    case MD_TEXT_BR:
    case MD_TEXT_SOFTBR:
        // A line break of the reply stays one, as it did in plain text.
        addText(QString(QChar::LineSeparator), Kind::Break);
        break;
    case MD_TEXT_ENTITY:
        addText(decodeEntity(text, size));
        break;
    default:
        // Raw HTML is text like any other; its own line breaks (and those of code
        // once formatting has stopped) stay.
        addText(utf8(text, size).replace(QLatin1Char('\n'), QChar::LineSeparator));
        break;
    }
    return 0;
}

QList<MarkdownSegment> Recorder::finish()
{
    if (!m_blocks.empty() && m_blocks.back() == Fate::Code)
        endCode();
    while (!m_open.empty())
        leave();
    endProse();
    return m_segments;
}

} // namespace

namespace MarkdownParser {

QList<MarkdownSegment> parse(const QString &markdown, const Limits &limits)
{
    const QByteArray bytes = markdown.toUtf8();
    Recorder recorder(limits);
    MD_PARSER parser{};
    parser.flags = MD_FLAG_TABLES | MD_FLAG_STRIKETHROUGH | MD_FLAG_TASKLISTS | MD_FLAG_PERMISSIVEAUTOLINKS;
    parser.enter_block = [](MD_BLOCKTYPE type, void *detail, void *user) {
        return static_cast<Recorder *>(user)->enterBlock(type, detail);
    };
    parser.leave_block = [](MD_BLOCKTYPE type, void *, void *user) {
        return static_cast<Recorder *>(user)->leaveBlock(type);
    };
    parser.enter_span = [](MD_SPANTYPE type, void *detail, void *user) {
        return static_cast<Recorder *>(user)->enterSpan(type, detail);
    };
    parser.leave_span = [](MD_SPANTYPE, void *, void *user) { return static_cast<Recorder *>(user)->leaveSpan(); };
    parser.text = [](MD_TEXTTYPE type, const MD_CHAR *text, MD_SIZE size, void *user) {
        return static_cast<Recorder *>(user)->text(type, text, size);
    };
    md_parse(bytes.constData(), static_cast<MD_SIZE>(bytes.size()), &parser, &recorder);
    return recorder.finish();
}

} // namespace MarkdownParser
