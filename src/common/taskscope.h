#pragma once

#include "common/errors.h"

#include <QCoroTask>
#include <QFutureWatcher>
#include <QtConcurrent>

#include <chrono>
#include <coroutine>
#include <memory>
#include <type_traits>
#include <vector>

class Wake;

/**
 * @brief What one owner has under way, so that all of it ends at once when the
 * owner goes.
 *
 * Every wait of the owner's coroutines (a child's end, a network reply, a worker's
 * result, a pause) is a Wake made with the owner's scope. abandon() resumes each of
 * them on the spot, and each throws Cancelled: the coroutines unwind while their
 * owner is still whole, and none is resumed into it later. A wait that begins after
 * the abandonment throws at once. Copies share one scope. GUI thread only.
 */
class TaskScope
{
public:
    TaskScope();
    void abandon() const;
    bool isAbandoned() const;

private:
    friend class Wake;
    struct State
    {
        std::vector<Wake *> waits;
        bool abandoned = false;
    };
    std::shared_ptr<State> m_state;
};

/**
 * @brief One place a coroutine waits at: `co_await wake.wait()` suspends until
 * wake() is called, or throws Cancelled when the scope is abandoned.
 *
 * wake() resumes the coroutine from the event loop, never from inside the caller
 * (often a signal of the very object the coroutine is about to delete). Abandoning
 * resumes it at once.
 */
class Wake
{
public:
    explicit Wake(const TaskScope &scope);
    ~Wake();
    Wake(const Wake &) = delete;
    Wake &operator=(const Wake &) = delete;

    void wake();

    struct Awaiter
    {
        Wake *wake;
        bool await_ready() const noexcept;
        void await_suspend(std::coroutine_handle<> waiting) const noexcept;
        void await_resume() const;
    };
    Awaiter wait() { return {this}; }

private:
    friend class TaskScope;
    // Shared with a queued resumption, which does nothing once the wait is gone.
    struct Pending
    {
        std::coroutine_handle<> waiting;
        bool woken = false; // wake() was called
        bool ready = false; // and its resumption has come
        bool abandoned = false;
    };
    void abandon();
    void unregister();

    std::shared_ptr<TaskScope::State> m_scope;
    std::shared_ptr<Pending> m_pending = std::make_shared<Pending>();
};

/** A pause that the scope's abandonment cuts short (with Cancelled). */
QCoro::Task<void> sleepFor(TaskScope scope, std::chrono::milliseconds duration);

namespace detail {
template <typename Result>
QCoro::Task<Result> resultOf(TaskScope scope, QFutureWatcher<Result> *watcher)
{
    Wake wake(scope);
    QObject::connect(watcher, &QFutureWatcherBase::finished, watcher, [&wake] { wake.wake(); });
    if (watcher->isFinished())
        wake.wake();
    try {
        co_await wake.wait();
    } catch (...) {
        // The worker may outlive this coroutine: the watcher goes once it is done.
        QObject::disconnect(watcher, nullptr, nullptr, nullptr);
        QObject::connect(watcher, &QFutureWatcherBase::finished, watcher, &QObject::deleteLater);
        if (watcher->isFinished())
            watcher->deleteLater();
        throw;
    }
    Result result = watcher->result();
    watcher->deleteLater();
    co_return result;
}
} // namespace detail

/** The result of `future`, as one of `scope`'s waits. */
template <typename Result> QCoro::Task<Result> resultOf(TaskScope scope, QFuture<Result> future)
{
    auto *watcher = new QFutureWatcher<Result>;
    watcher->setFuture(std::move(future));
    return detail::resultOf<Result>(std::move(scope), watcher);
}

/** Runs `work` on the thread pool and returns its result; the GUI thread never waits.
 *  If the scope is abandoned meanwhile, the result is dropped when it comes. Not a
 *  coroutine itself: GCC 12 mishandles a closure passed by value into one. */
template <typename Work>
QCoro::Task<std::invoke_result_t<Work>> onWorker(TaskScope scope, Work work)
{
    return resultOf(std::move(scope), QtConcurrent::run(std::move(work)));
}
