#include "EnginePoller.h"

#include "EngineConnection.h"

#include <QNetworkReply>
#include <QTimer>

EnginePoller::EnginePoller(EngineConnection *connection)
    : CancellableTask(connection), m_connection(connection), m_pause(new QTimer(this))
{
    m_pause->setSingleShot(true);
    m_pause->setTimerType(Qt::PreciseTimer);
    connect(m_pause, &QTimer::timeout, this, [this] {
        if (m_afterPause)
            (this->*m_afterPause)();
    });
}

void EnginePoller::begin()
{
    if (!m_connection) {
        finish();
        return;
    }
    m_attempts = 0;
    startupStep();
}

void EnginePoller::onCancel()
{
    // Stop the status call in flight; a pause ends early so the task can see the cancel.
    EngineClient::cancelRequest(m_reply);
    if (m_pause->isActive()) {
        m_pause->stop();
        QTimer::singleShot(0, this, [this] {
            if (m_afterPause)
                (this->*m_afterPause)();
        });
    }
}

void EnginePoller::pauseThen(int milliseconds, void (EnginePoller::*next)())
{
    m_afterPause = next;
    m_pause->start(milliseconds);
}

void EnginePoller::startupStep()
{
    if (isCancelled() || !m_connection) {
        finish();
        return;
    }
    m_reply = m_connection->refresh([this](bool applied) {
        m_reply = nullptr;
        if (applied) {
            startupFinished();
            return;
        }
        pauseThen(startupPauseMilliseconds, &EnginePoller::startupPauseEnded);
    });
}

void EnginePoller::startupPauseEnded()
{
    ++m_attempts;
    if (m_attempts >= startupAttempts) {
        startupFinished();
        return;
    }
    startupStep();
}

void EnginePoller::startupFinished()
{
    if (m_connection && !m_connection->ready())
        emit startupFailed();
    // The loop runs whether or not the engine answered, so a late engine is still picked up.
    pollStep();
}

void EnginePoller::pollStep()
{
    if (isCancelled() || !m_connection) {
        finish();
        return;
    }
    m_reply = m_connection->refresh([this](bool) {
        m_reply = nullptr;
        pauseThen(pollPauseMilliseconds, &EnginePoller::pollStep);
    });
}
