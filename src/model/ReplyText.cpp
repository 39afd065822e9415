#include "ReplyText.h"

namespace {

qsizetype firstNonSpace(const QString &text)
{
    qsizetype at = 0;
    while (at < text.size() && text.at(at).isSpace())
        ++at;
    return at;
}

// Where the section's text starts, or -1 when the text does not open with one.
qsizetype reasoningStart(const QString &text)
{
    const qsizetype at = firstNonSpace(text);
    return QStringView(text).sliced(at).startsWith(ReplyText::open) ? at + ReplyText::open.size() : -1;
}

} // namespace

qsizetype ReplyText::answerStart(const QString &text)
{
    const qsizetype start = reasoningStart(text);
    if (start < 0)
        return 0;
    const qsizetype end = text.indexOf(close, start);
    if (end < 0)
        return text.size();
    qsizetype at = end + close.size();
    while (at < text.size() && text.at(at).isSpace())
        ++at;
    return at;
}

ReplyText ReplyText::split(const QString &text)
{
    ReplyText parts;
    const qsizetype start = reasoningStart(text);
    if (start < 0) {
        parts.answer = text;
        return parts;
    }
    parts.hasReasoning = true;
    const qsizetype end = text.indexOf(close, start);
    if (end < 0) {
        parts.reasoningOpen = true;
        QStringView reasoning = QStringView(text).sliced(start);
        // A closing tag still arriving is not part of the reasoning.
        for (qsizetype length = close.size() - 1; length > 0; --length) {
            if (reasoning.endsWith(close.first(length))) {
                reasoning.chop(length);
                break;
            }
        }
        parts.reasoning = reasoning.trimmed().toString();
        return parts;
    }
    parts.reasoning = QStringView(text).sliced(start, end - start).trimmed().toString();
    parts.answer = text.sliced(answerStart(text));
    return parts;
}
