#include "ChatExchange.h"

#include "engine/EngineClient.h"
#include "engine/EngineRequest.h"
#include "model/ReplyText.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <algorithm>

namespace {

QString refusedMessage()
{
    return QStringLiteral("The model could not answer. Check its image support and available memory.");
}

} // namespace

ChatExchange::ChatExchange(EngineClient *client, QJsonArray messages, QObject *parent)
    : CancellableTask(parent), m_client(client), m_messages(std::move(messages))
{
}

void ChatExchange::begin(double temperature, int tokenLimit)
{
    if (!m_client) {
        finish();
        return;
    }
    if (isCancelled()) {
        failCancelled();
        return;
    }
    const auto base = m_client->baseURL();
    if (!base) {
        finalSteps();
        return;
    }

    const QNetworkRequest request = EngineRequest::build(*base, QStringLiteral("v1/chat/completions"),
                                                         m_client->chatTimeout());
    const QJsonObject body{
        {QStringLiteral("messages"), m_messages},
        {QStringLiteral("stream"), true},
        {QStringLiteral("temperature"), temperature},
        {QStringLiteral("max_tokens"), tokenLimit},
    };
    m_networkReply = m_client->post(request, body);
    connect(m_networkReply, &QNetworkReply::readyRead, this, &ChatExchange::readAvailable);
    connect(m_networkReply, &QNetworkReply::finished, this, &ChatExchange::replyFinished);
}

void ChatExchange::onCancel()
{
    // Stop reading at once; the reply is dropped and the task ends as stopped.
    if (m_networkReply && !m_ended)
        failCancelled();
}

bool ChatExchange::statusIsAcceptable()
{
    const QVariant status = m_networkReply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (status.isValid() && status.toInt() != 200) {
        fail(refusedMessage());
        return false;
    }
    return true;
}

void ChatExchange::readAvailable()
{
    if (m_ended || !statusIsAcceptable())
        return;
    const QStringList lines = m_lines.feed(m_networkReply->readAll());
    for (const QString &line : lines) {
        if (isCancelled()) {
            failCancelled();
            return;
        }
        if (handleLine(line) == Outcome::Done)
            return;
    }
}

void ChatExchange::replyFinished()
{
    if (m_ended)
        return;
    const auto error = m_networkReply->error();
    // Stopping detaches from the reply before aborting it, so a reply that ends as
    // cancelled here was aborted by its transfer time-out.
    const bool timedOut = error == QNetworkReply::OperationCanceledError || error == QNetworkReply::TimeoutError;
    const QVariant status = m_networkReply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (timedOut || !status.isValid()
        || (error != QNetworkReply::NoError && error < QNetworkReply::ContentAccessDenied)) {
        // Whatever arrived before the break has been applied already.
        fail(timedOut ? EngineFailure::timedOutMessage() : m_networkReply->errorString());
        return;
    }
    readAvailable();
    if (m_ended)
        return;
    for (const QString &line : m_lines.finish()) {
        if (handleLine(line) == Outcome::Done)
            return;
    }
    succeed();
}

ChatExchange::Outcome ChatExchange::handleLine(const QString &line)
{
    static const QString prefix = QStringLiteral("data: ");
    if (!line.startsWith(prefix))
        return Outcome::Continue;
    const QString data = line.mid(prefix.size());
    if (data == QLatin1String("[DONE]")) {
        succeed();
        return Outcome::Done;
    }
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(data.toUtf8(), &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        fail(QStringLiteral("The data couldn\u2019t be read because it isn\u2019t in the correct format. (%1)")
                 .arg(parseError.errorString()));
        return Outcome::Done;
    }
    if (!document.isObject())
        return Outcome::Continue;
    // The last chunk tells how much of the context the conversation now takes.
    if (const auto use = ContextUse::fromReply(document.object()))
        emit contextReported(*use);
    const QJsonValue choices = document.object().value(QStringLiteral("choices"));
    if (!choices.isArray() || choices.toArray().isEmpty() || !choices.toArray().first().isObject())
        return Outcome::Continue;
    const QJsonValue delta = choices.toArray().first().toObject().value(QStringLiteral("delta"));
    if (!delta.isObject())
        return Outcome::Continue;
    const QJsonValue reasoning = delta.toObject().value(QStringLiteral("reasoning_content"));
    if (reasoning.isString() && !reasoning.toString().isEmpty())
        addReasoning(reasoning.toString());
    const QJsonValue content = delta.toObject().value(QStringLiteral("content"));
    if (content.isString())
        addContent(content.toString());
    return Outcome::Continue;
}

void ChatExchange::grow(const QString &piece)
{
    m_reply += piece;
    emit replyGrew(piece, m_reply);
}

void ChatExchange::addReasoning(const QString &piece)
{
    if (m_reasoning == Reasoning::None && m_reply.isEmpty()) {
        m_reasoning = Reasoning::Apart;
        m_reasoningClock.start();
        grow(ReplyText::open.toString() + QLatin1Char('\n') + piece);
        return;
    }
    // Reasoning after the answer began has no section to go to; it is kept as text.
    grow(piece);
}

void ChatExchange::addContent(const QString &piece)
{
    if (m_reasoning == Reasoning::Apart) {
        if (piece.isEmpty())
            return;
        endReasoning();
        grow(QLatin1Char('\n') + ReplyText::close.toString() + QStringLiteral("\n\n") + piece);
        return;
    }
    const qsizetype before = m_reply.size();
    grow(piece);
    if (m_reasoning == Reasoning::None && !m_reply.trimmed().isEmpty()) {
        // The model writes its section itself: it is timed from its opening tag.
        if (ReplyText::split(m_reply).hasReasoning) {
            m_reasoning = Reasoning::Inline;
            m_reasoningClock.start();
        } else if (!ReplyText::open.startsWith(m_reply.trimmed())) {
            m_reasoning = Reasoning::Done;
        }
    }
    // Only the new piece and a tag it may complete are searched.
    if (m_reasoning == Reasoning::Inline
        && m_reply.indexOf(ReplyText::close, std::max<qsizetype>(0, before - ReplyText::close.size())) >= 0)
        endReasoning();
}

void ChatExchange::endReasoning()
{
    if (m_reasoning != Reasoning::Apart && m_reasoning != Reasoning::Inline)
        return;
    m_reasoning = Reasoning::Done;
    emit reasoningTimed((m_reasoningClock.elapsed() + 500) / 1000);
}

void ChatExchange::detachReply()
{
    m_ended = true;
    if (m_networkReply) {
        m_networkReply->disconnect(this);
        // A refused reply fails on its own; aborting it as well would report a second
        // error. Deleting it drops its connection all the same.
        const QVariant status = m_networkReply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        if (!status.isValid() || status.toInt() == 200)
            m_networkReply->abort();
        m_networkReply->deleteLater();
    }
}

void ChatExchange::succeed()
{
    detachReply();
    finalSteps();
}

void ChatExchange::failCancelled()
{
    detachReply();
    if (m_reply.isEmpty())
        emit replyReplaced(QStringLiteral("Stopped."));
    finalSteps();
}

void ChatExchange::fail(const QString &message)
{
    detachReply();
    if (!isCancelled())
        emit failed(message);
    if (m_reply.isEmpty())
        emit replyReplaced(isCancelled() ? QStringLiteral("Stopped.")
                                         : QStringLiteral("The request did not complete."));
    finalSteps();
}

void ChatExchange::finalSteps()
{
    m_ended = true;
    // A reply that ends while still reasoning has thought until now.
    endReasoning();
    emit ended();
    finish();
}
