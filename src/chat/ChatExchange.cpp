#include "ChatExchange.h"

#include "engine/EngineStore.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>

namespace {

QString refusedMessage()
{
    return QStringLiteral("The model could not answer. Check its image support and available memory.");
}

} // namespace

ChatExchange::ChatExchange(EngineStore *store, QJsonArray messages, QUuid assistantID)
    : CancellableTask(store), m_store(store), m_messages(std::move(messages)), m_assistantID(assistantID)
{
}

void ChatExchange::begin()
{
    if (!m_store) {
        finish();
        return;
    }
    if (isCancelled()) {
        failCancelled();
        return;
    }
    const auto base = m_store->baseURL();
    if (!base) {
        finalSteps();
        return;
    }

    QUrl target = *base;
    target.setPath(QStringLiteral("/v1/chat/completions"));
    QNetworkRequest request(target);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    request.setTransferTimeout(m_store->m_chatTimeoutMilliseconds);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    const QJsonObject body{
        {QStringLiteral("messages"), m_messages},
        {QStringLiteral("stream"), true},
        {QStringLiteral("temperature"), m_store->temperature()},
        {QStringLiteral("max_tokens"), m_store->tokenLimit()},
    };
    m_networkReply = m_store->m_network->post(request, QJsonDocument(body).toJson(QJsonDocument::Compact));
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
    if (timedOut || !status.isValid() || (error != QNetworkReply::NoError && error < QNetworkReply::ContentAccessDenied)) {
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
    const QJsonValue choices = document.object().value(QStringLiteral("choices"));
    if (!choices.isArray() || choices.toArray().isEmpty() || !choices.toArray().first().isObject())
        return Outcome::Continue;
    const QJsonValue delta = choices.toArray().first().toObject().value(QStringLiteral("delta"));
    if (!delta.isObject())
        return Outcome::Continue;
    const QJsonValue content = delta.toObject().value(QStringLiteral("content"));
    if (!content.isString())
        return Outcome::Continue;
    m_reply += content.toString();
    if (m_store)
        m_store->updateAssistant(m_assistantID, m_reply);
    return Outcome::Continue;
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
    if (m_reply.isEmpty() && m_store)
        m_store->updateAssistant(m_assistantID, QStringLiteral("Stopped."));
    finalSteps();
}

void ChatExchange::fail(const QString &message)
{
    detachReply();
    if (m_store) {
        if (!isCancelled())
            m_store->setError(message);
        if (m_reply.isEmpty())
            m_store->updateAssistant(m_assistantID, isCancelled() ? QStringLiteral("Stopped.")
                                                                  : QStringLiteral("The request did not complete."));
    }
    finalSteps();
}

void ChatExchange::finalSteps()
{
    m_ended = true;
    if (EngineStore *store = m_store) {
        store->setGenerating(false);
        store->save();
        QTimer::singleShot(0, store, [store] { store->refresh(); });
    }
    finish();
}
