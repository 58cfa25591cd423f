#pragma once

#include <QMutex>
#include <QPointer>
#include <QProcess>

#include <chrono>

/**
 * @brief Holds the running child of one run so that someone else can stop it.
 *
 * runProcess starts every child as the leader of a process group of its own, so a
 * stop reaches whatever the child started too (an engine behind a wrapper script).
 * A stop sends SIGTERM to the group and, if anything of the group is still there
 * after the grace period, SIGKILL: a child that ignores the polite request still
 * ends.
 *
 * Threads: stop(), terminate() and isStopped() may be called from any thread; the
 * kill after the grace period is always armed on the thread the QProcess lives on.
 * setProcess() is runProcess's business, on that same thread. The lock guards only
 * the pointer to the process, its group id and the stopped mark; it does not keep
 * the process alive nor order a stop against the run's end, which is why signals
 * go to the group id taken under the lock rather than through the QProcess.
 */
class ProcessBox
{
public:
    static constexpr std::chrono::milliseconds defaultGrace{3000};

    explicit ProcessBox(std::chrono::milliseconds grace = defaultGrace) : m_grace(grace) {}

    /** Marks the run as stopped and asks its process group to terminate. */
    void stop();
    /** Asks the process group to terminate without marking the run as stopped by the user. */
    void terminate();
    bool isStopped() const;
    /** Whether the box holds a child that has started and not yet ended. */
    bool isRunning() const;
    void setProcess(QProcess *process);

    void setGrace(std::chrono::milliseconds grace);
    std::chrono::milliseconds grace() const;

private:
    void signalGroup();

    mutable QMutex m_lock;
    QPointer<QProcess> m_process;
    qint64 m_group = 0; // the child's pid, which is its process group id; 0 before start
    bool m_stopped = false;
    std::chrono::milliseconds m_grace;
};
