#pragma once

#include <QCoroTask>
#include <QString>
#include <QTest>
#include <exception>
#include <optional>

QString describeException(std::exception_ptr error);

// QCoro::waitFor on a task that throws hangs and loses the exception, so tests run
// tasks through this wrapper: it catches, and fails the test if the event loop does
// not finish the task in time.
template <typename T> struct Outcome
{
    std::optional<T> value;
    std::exception_ptr error;

    bool ok() const { return value.has_value(); }
    // The error's user-visible text, or an empty string if the task succeeded.
    QString errorText() const { return error ? describeException(error) : QString(); }
};

struct Unit
{
};

template <typename T> Outcome<T> runTask(QCoro::Task<T> task, int timeoutMs = 60000)
{
    Outcome<T> outcome;
    bool done = false;
    auto wrapper = [&]() -> QCoro::Task<void> {
        try {
            outcome.value = co_await std::move(task);
        } catch (...) {
            outcome.error = std::current_exception();
        }
        done = true;
    };
    auto running = wrapper();
    if (!QTest::qWaitFor([&] { return done; }, timeoutMs))
        qFatal("a task did not finish within %d ms", timeoutMs);
    return outcome;
}

QCoro::Task<Unit> asUnit(QCoro::Task<void> task);

inline Outcome<Unit> runVoidTask(QCoro::Task<void> task, int timeoutMs = 60000)
{
    return runTask(asUnit(std::move(task)), timeoutMs);
}
