#include "ConversationUndo.h"

ConversationUndo::ConversationUndo(QObject *parent) : QObject(parent)
{
    m_timer.setSingleShot(true);
    m_timer.setInterval(defaultTimeoutMs);
    connect(&m_timer, &QTimer::timeout, this, &ConversationUndo::drop);
}

QString ConversationUndo::text() const
{
    if (!m_record)
        return {};
    if (m_record->kind == Kind::Edit)
        return QStringLiteral("Message edited");
    return QStringLiteral("Deleted \u201c%1\u201d").arg(m_record->before.title);
}

std::optional<QUuid> ConversationUndo::conversation() const
{
    return m_record ? std::optional<QUuid>(m_record->before.id) : std::nullopt;
}

void ConversationUndo::offer(Record record)
{
    m_record = std::move(record);
    m_timer.start();
    emit changed();
}

std::optional<ConversationUndo::Record> ConversationUndo::take()
{
    std::optional<Record> record = std::move(m_record);
    m_record.reset();
    m_timer.stop();
    if (record)
        emit changed();
    return record;
}

void ConversationUndo::drop()
{
    take();
}

void ConversationUndo::dropEditOf(const QUuid &conversation)
{
    if (m_record && m_record->kind == Kind::Edit && m_record->before.id == conversation)
        drop();
}
