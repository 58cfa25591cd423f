#include "coro.h"

#include "process/processfailure.h"

QString describeException(std::exception_ptr error)
{
    try {
        std::rethrow_exception(error);
    } catch (const std::exception &e) {
        return describeError(e);
    } catch (...) {
        return QStringLiteral("unknown exception");
    }
}

QCoro::Task<Unit> asUnit(QCoro::Task<void> task)
{
    co_await std::move(task);
    co_return Unit{};
}
