#include "CancellableTask.h"

void CancellableTask::cancel()
{
    if (m_cancelled || m_finished)
        return;
    m_cancelled = true;
    onCancel();
}

void CancellableTask::finish()
{
    if (m_finished)
        return;
    m_finished = true;
    emit finished();
    deleteLater();
}
