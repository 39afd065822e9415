#pragma once

#include <QEventLoop>
#include <QTimer>
#include <functional>

// Waits in a real event loop, as the app runs, until a condition holds. The test
// helpers' waits poll instead and sleep 10 ms between passes; the window would then
// draw on the rhythm of those sleeps, not its own, and frame timings would measure
// the wait. The condition is checked again whenever check() is called, from the
// signals that can change it.
class EventLoopWait {
public:
    explicit EventLoopWait(std::function<bool()> condition) : m_condition(std::move(condition))
    {
        m_deadline.setSingleShot(true);
        QObject::connect(&m_deadline, &QTimer::timeout, &m_loop, &QEventLoop::quit);
    }

    void check()
    {
        if (m_condition())
            m_loop.quit();
    }

    // Whether the condition held before the time ran out.
    bool run(int timeoutMs)
    {
        if (m_condition())
            return true;
        m_deadline.start(timeoutMs);
        m_loop.exec();
        m_deadline.stop();
        return m_condition();
    }

private:
    std::function<bool()> m_condition;
    QEventLoop m_loop;
    QTimer m_deadline;
};
