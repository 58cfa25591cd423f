#include "taskscope.h"

#include <QCoreApplication>
#include <QTimer>

#include <algorithm>

TaskScope::TaskScope() : m_state(std::make_shared<State>()) {}

void TaskScope::abandon() const
{
    m_state->abandoned = true;
    // One at a time, re-reading the list: a resumed coroutine may end other waits.
    while (!m_state->waits.empty()) {
        Wake *wait = m_state->waits.back();
        m_state->waits.pop_back();
        wait->m_scope.reset();
        wait->abandon();
    }
}

bool TaskScope::isAbandoned() const
{
    return m_state->abandoned;
}

Wake::Wake(const TaskScope &scope) : m_scope(scope.m_state)
{
    if (m_scope->abandoned)
        m_pending->abandoned = true;
    else
        m_scope->waits.push_back(this);
}

Wake::~Wake()
{
    unregister();
}

void Wake::unregister()
{
    if (m_scope) {
        std::erase(m_scope->waits, this);
        m_scope.reset();
    }
}

void Wake::wake()
{
    if (m_pending->woken || m_pending->abandoned)
        return;
    m_pending->woken = true;
    std::weak_ptr<Pending> pending = m_pending;
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [pending] {
            const auto alive = pending.lock();
            if (!alive || alive->abandoned)
                return;
            alive->ready = true;
            if (alive->waiting)
                std::exchange(alive->waiting, {}).resume();
        },
        Qt::QueuedConnection);
}

void Wake::abandon()
{
    if (m_pending->abandoned)
        return;
    m_pending->abandoned = true;
    if (m_pending->waiting)
        std::exchange(m_pending->waiting, {}).resume();
}

bool Wake::Awaiter::await_ready() const noexcept
{
    return wake->m_pending->abandoned || wake->m_pending->ready;
}

void Wake::Awaiter::await_suspend(std::coroutine_handle<> waiting) const noexcept
{
    wake->m_pending->waiting = waiting;
}

void Wake::Awaiter::await_resume() const
{
    if (wake->m_pending->abandoned)
        throw Cancelled();
}

QCoro::Task<void> sleepFor(TaskScope scope, std::chrono::milliseconds duration)
{
    Wake wake(scope);
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout, [&wake] { wake.wake(); });
    timer.start(duration);
    co_await wake.wait();
}
