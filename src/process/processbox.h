#pragma once

#include "common/taskscope.h"

#include <QHash>
#include <QProcessEnvironment>

#include <chrono>
#include <memory>

class QProcess;

/**
 * @brief Owns every process of one run: the child that runProcess starts and
 * whatever it starts in turn, also what leaves the child's process group or session.
 *
 * The launcher is a child subreaper, so nothing a child starts can slip out from
 * under it while it lives; a run's processes are its child, that child's
 * descendants, its process group and every process that carries the run's private
 * token in its environment (which a helper that moved to a session of its own still
 * does). A stop asks every one of them to terminate and kills what is left after the
 * grace period: a child that ignores the request still ends. When the child ends on
 * its own, whatever it left behind is ended the same way.
 *
 * Threads: stop(), terminate(), isStopped() and isRunning() may be called from any
 * thread; the kill after the grace period runs on the application's thread.
 */
class ProcessBox
{
public:
    static constexpr std::chrono::milliseconds defaultGrace{3000};

    explicit ProcessBox(TaskScope scope = {}, std::chrono::milliseconds grace = defaultGrace);
    ~ProcessBox();
    ProcessBox(const ProcessBox &) = delete;
    ProcessBox &operator=(const ProcessBox &) = delete;

    /** Marks the run as stopped by the player and ends it. */
    void stop();
    /** Ends the run without the mark (the import's own close of the editor). */
    void terminate();
    bool isStopped() const;
    /** Whether the run's child has started and not yet ended. */
    bool isRunning() const;
    /** Whose waits the run's end belongs to. */
    const TaskScope &scope() const { return m_scope; }
    std::chrono::milliseconds grace() const { return m_grace; }

    /** Sets a variable of the child's environment, or removes it when `value` is null.
     *  Before the run starts. */
    void setVariable(const QString &name, const QString &value);

    // runProcess's business, on the thread the QProcess lives on.
    /** The inherited environment with the variables set here, plus the run's token. */
    QProcessEnvironment environment() const;
    void started(QProcess *process);
    /** The child has ended; whatever of the run is left is ended too. */
    void ended();

    /**
     * For quitting: asks every process of every run of this program to terminate,
     * waits until they are gone or `grace` has passed, kills what is left and
     * returns. Blocks, since the event loop is over by then.
     */
    static void endAll(std::chrono::milliseconds grace);

    struct Run;

private:
    TaskScope m_scope;
    std::chrono::milliseconds m_grace;
    std::shared_ptr<Run> m_run;
    QHash<QString, QString> m_variables;
};
