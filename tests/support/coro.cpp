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
