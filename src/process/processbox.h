#pragma once

#include <QMutex>
#include <QPointer>
#include <QProcess>

/**
 * @brief Holds the running child of one run so that someone else can stop it.
 *
 * `process` and `stopped` are touched only under `lock`; the terminate request is
 * made after the lock is released.
 */
class ProcessBox
{
public:
    /** Marks the run as stopped and asks its child, if running, to terminate (SIGTERM). */
    void stop();
    /** Asks the child to terminate without marking the run as stopped by the user. */
    void terminate();
    bool isStopped() const;
    /** Whether the box holds a child that has started and not yet ended. */
    bool isRunning() const;
    void setProcess(QProcess *process);

private:
    mutable QMutex m_lock;
    QPointer<QProcess> m_process;
    bool m_stopped = false;
};
