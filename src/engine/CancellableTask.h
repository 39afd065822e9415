#pragma once

#include <QObject>

// A unit of asynchronous work on the main thread that can be asked to stop.
// Cancelling is cooperative: the task notices it at its next step or through the
// network reply it aborts, then finishes on its own.
class CancellableTask : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

    void cancel();
    bool isCancelled() const { return m_cancelled; }
    bool isFinished() const { return m_finished; }

signals:
    void finished();

protected:
    // Called once, the first time cancel() is called on a running task.
    virtual void onCancel() {}
    // Marks the task finished, emits finished() and schedules deletion.
    void finish();

private:
    bool m_cancelled = false;
    bool m_finished = false;
};
