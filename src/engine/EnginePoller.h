#pragma once

#include "CancellableTask.h"

#include <QPointer>

class EngineConnection;
class QNetworkReply;
class QTimer;

// The one long-lived status task: first a start-up wait of up to 50 status calls
// 200 ms apart, then a status call every 2 seconds until cancelled.
class EnginePoller : public CancellableTask {
    Q_OBJECT
public:
    static constexpr int startupAttempts = 50;
    static constexpr int startupPauseMilliseconds = 200;
    static constexpr int pollPauseMilliseconds = 2000;

    explicit EnginePoller(EngineConnection *connection);

    void begin();

signals:
    // The start-up wait ended without an answer from the engine.
    void startupFailed();

protected:
    void onCancel() override;

private:
    void startupStep();
    void startupPauseEnded();
    void startupFinished();
    void pollStep();
    void pauseThen(int milliseconds, void (EnginePoller::*next)());

    QPointer<EngineConnection> m_connection;
    QPointer<QNetworkReply> m_reply;
    QTimer *m_pause;
    void (EnginePoller::*m_afterPause)() = nullptr;
    int m_attempts = 0;
};
