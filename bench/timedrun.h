#pragma once

#include "process/runprocess.h"

#include <QCoroTask>
#include <QElapsedTimer>
#include <QString>
#include <QStringList>

#include <exception>

// Runs `sh -c script` through runProcess, every line to onLine; the wall time in ns.
inline QCoro::Task<qint64> timedRun(QString script, LineSink onLine)
{
    const QString sh = QStringLiteral("/bin/sh");
    const QStringList arguments{QStringLiteral("-c"), script};
    QElapsedTimer clock;
    clock.start();
    int status = -1;
    // Nothing awaits the caller's side of waitFor's loop: an escaping exception would
    // leave that loop running for ever.
    try {
        status =
            co_await runProcess(sh, arguments, std::make_shared<ProcessBox>(), std::move(onLine));
    } catch (const std::exception &error) {
        qFatal("the child did not start: %s", error.what());
    }
    if (status != 0)
        qFatal("the child ended with status %d", status);
    co_return clock.nsecsElapsed();
}

/** timedRun for a caller outside a coroutine; the event loop runs meanwhile. */
inline qint64 timedRunWaiting(QString script, LineSink onLine)
{
    return QCoro::waitFor(timedRun(std::move(script), std::move(onLine)));
}
