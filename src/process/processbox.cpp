#include "processbox.h"

#include <QMutexLocker>

void ProcessBox::stop()
{
    QPointer<QProcess> process;
    {
        QMutexLocker locker(&m_lock);
        m_stopped = true;
        process = m_process;
    }
    if (process && process->state() != QProcess::NotRunning)
        process->terminate();
}

void ProcessBox::terminate()
{
    QPointer<QProcess> process;
    {
        QMutexLocker locker(&m_lock);
        process = m_process;
    }
    if (process && process->state() != QProcess::NotRunning)
        process->terminate();
}

bool ProcessBox::isStopped() const
{
    QMutexLocker locker(&m_lock);
    return m_stopped;
}

void ProcessBox::setProcess(QProcess *process)
{
    QMutexLocker locker(&m_lock);
    m_process = process;
}

bool ProcessBox::isRunning() const
{
    QMutexLocker locker(&m_lock);
    return m_process && m_process->state() == QProcess::Running;
}
