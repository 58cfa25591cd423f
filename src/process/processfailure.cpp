#include "processfailure.h"

QString describeError(const std::exception &error)
{
    if (auto failure = dynamic_cast<const ProcessFailure *>(&error))
        return failure->message;
    if (auto platform = dynamic_cast<const PlatformError *>(&error))
        return platform->description();
    if (auto cancelled = dynamic_cast<const Cancelled *>(&error))
        return cancelled->description();
    return QString::fromUtf8(error.what());
}
