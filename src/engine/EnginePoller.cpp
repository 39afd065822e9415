#include "EnginePoller.h"

#include "EngineStore.h"

#include <QNetworkReply>
#include <QTimer>

EnginePoller::EnginePoller(EngineStore *store) : CancellableTask(store), m_store(store), m_pause(new QTimer(this))
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
    if (!m_store) {
        finish();
        return;
    }
    m_attempts = 0;
    startupStep();
}

void EnginePoller::onCancel()
{
    // Stop the status call in flight; a pause ends early so the task can see the cancel.
    EngineStore::cancelRequest(m_reply);
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
    if (isCancelled() || !m_store) {
        finish();
        return;
    }
    m_reply = m_store->refresh([this](bool applied) {
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
    if (m_store && !m_store->ready())
        m_store->setError(QStringLiteral("The local engine did not respond. Relaunch Vorn to try again."));
    // The loop runs whether or not the engine answered, so a late engine is still picked up.
    pollStep();
}

void EnginePoller::pollStep()
{
    if (isCancelled() || !m_store) {
        finish();
        return;
    }
    m_reply = m_store->refresh([this](bool) {
        m_reply = nullptr;
        pauseThen(pollPauseMilliseconds, &EnginePoller::pollStep);
    });
}
