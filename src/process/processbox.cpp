#include "processbox.h"

#include <QCoreApplication>
#include <QMutexLocker>
#include <QTimer>

#include <csignal>
#include <sys/types.h>

namespace {
// Whether any process of the group is left.
bool groupAlive(pid_t group)
{
    return ::kill(-group, 0) == 0;
}
} // namespace

void ProcessBox::stop()
{
    {
        QMutexLocker locker(&m_lock);
        m_stopped = true;
    }
    signalGroup();
}

void ProcessBox::terminate()
{
    signalGroup();
}

void ProcessBox::signalGroup()
{
    QPointer<QProcess> process;
    pid_t group;
    std::chrono::milliseconds grace;
    {
        QMutexLocker locker(&m_lock);
        process = m_process;
        group = pid_t(m_group);
        grace = m_grace;
    }
    if (group <= 0)
        return;
    // The child may not have made its group yet when a stop comes right after the
    // start; then the child alone gets the signal.
    if (::kill(-group, SIGTERM) != 0 && process && process->state() != QProcess::NotRunning)
        ::kill(group, SIGTERM);
    // The timer must run on a thread with an event loop: the one of the process, or
    // the application's once the run has ended and the process is gone.
    QObject *context = process ? static_cast<QObject *>(process) : QCoreApplication::instance();
    if (!context)
        return;
    QMetaObject::invokeMethod(
        context,
        [group, grace] {
            QTimer::singleShot(grace, QCoreApplication::instance(), [group] {
                if (groupAlive(group))
                    ::kill(-group, SIGKILL);
            });
        },
        Qt::AutoConnection);
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
    m_group = process ? process->processId() : 0;
}

void ProcessBox::setGrace(std::chrono::milliseconds grace)
{
    QMutexLocker locker(&m_lock);
    m_grace = grace;
}

std::chrono::milliseconds ProcessBox::grace() const
{
    QMutexLocker locker(&m_lock);
    return m_grace;
}

bool ProcessBox::isRunning() const
{
    QMutexLocker locker(&m_lock);
    return m_process && m_process->state() == QProcess::Running;
}
