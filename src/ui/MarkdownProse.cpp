#include "MarkdownProse.h"

#include <QDesktopServices>
#include <QTimer>
#include <QUrl>

MarkdownProse::~MarkdownProse() = default;

void MarkdownProse::setDocument(QQuickTextDocument *document)
{
    if (m_document == document)
        return;
    m_document = document;
    m_writer.reset();
    show();
    emit documentChanged();
}

void MarkdownProse::setUnits(const QVariant &units)
{
    QList<MarkdownUnit> list = units.value<QList<MarkdownUnit>>();
    if (list == m_units)
        return;
    m_units = std::move(list);
    show();
    emit unitsChanged();
}

template <typename Value>
void MarkdownProse::setStyle(Value &member, const Value &value)
{
    if (member == value)
        return;
    member = value;
    restyle();
    emit styleChanged();
}

void MarkdownProse::setTextColor(const QColor &value)
{
    setStyle(m_textColor, value);
}

void MarkdownProse::setSecondaryColor(const QColor &value)
{
    setStyle(m_secondaryColor, value);
}

void MarkdownProse::setLinkColor(const QColor &value)
{
    setStyle(m_linkColor, value);
}

void MarkdownProse::setCodeFill(const QColor &value)
{
    setStyle(m_codeFill, value);
}

void MarkdownProse::setHairline(const QColor &value)
{
    setStyle(m_hairline, value);
}

void MarkdownProse::setMonospaceFamily(const QString &value)
{
    setStyle(m_monospaceFamily, value);
}

bool MarkdownProse::openLink(const QString &link) const
{
    const QString safe = MarkdownDocumentWriter::safeLink(link);
    if (safe.isEmpty() || safe != link)
        return false;
    return QDesktopServices::openUrl(QUrl(safe));
}

void MarkdownProse::componentComplete()
{
    m_complete = true;
    show();
}

void MarkdownProse::restyle()
{
    if (!m_writer || m_restylePending)
        return;
    m_restylePending = true;
    QTimer::singleShot(0, this, [this] {
        m_restylePending = false;
        m_writer.reset();
        show();
    });
}

void MarkdownProse::show()
{
    // Until the view is complete its colours may still come.
    if (!m_complete || !m_document || !m_document->textDocument())
        return;
    if (!m_writer) {
        MarkdownStyle style;
        style.text = m_textColor;
        style.secondary = m_secondaryColor;
        style.link = m_linkColor;
        style.codeFill = m_codeFill;
        style.hairline = m_hairline;
        style.monospaceFamily = m_monospaceFamily;
        m_writer = std::make_unique<MarkdownDocumentWriter>(m_document->textDocument(), style);
        m_writer->reset();
    }
    m_writer->show(m_units);
}
