#pragma once

#include "process/runprocess.h"

#include <QCoroTask>
#include <QElapsedTimer>
#include <QString>
#include <QStringList>

#include <exception>
#include <utility>

#include "report.h"

// Runs `sh -c script` through runProcess, every line to onLine; the wall time in ns, or
// what went wrong.
inline QCoro::Task<std::pair<qint64, QString>> timedRun(QString script, LineSink onLine)
{
    const QString sh = QStringLiteral("/bin/sh");
    const QStringList arguments{QStringLiteral("-c"), script};
    QElapsedTimer clock;
    clock.start();
    int status = -1;
    // Nothing awaits the caller's side of waitFor's loop: an escaping exception would
    // leave that loop running for ever. The caller throws once the loop is over.
    try {
        status =
            co_await runProcess(sh, arguments, std::make_shared<ProcessBox>(), std::move(onLine));
    } catch (const std::exception &error) {
        co_return std::pair(qint64(0), QStringLiteral("the child did not start: ") +
                                           QString::fromLocal8Bit(error.what()));
    }
    if (status != 0)
        co_return std::pair(qint64(0),
                            QStringLiteral("the child ended with status %1").arg(status));
    co_return std::pair(clock.nsecsElapsed(), QString());
}

/** timedRun for a caller outside a coroutine; the event loop runs meanwhile. */
inline qint64 timedRunWaiting(QString script, LineSink onLine)
{
    const auto [ns, failure] = QCoro::waitFor(timedRun(std::move(script), std::move(onLine)));
    if (!failure.isEmpty())
        throw Failure{failure};
    return ns;
}
