#pragma once

#include "process/runprocess.h"

#include <QCoroTask>
#include <QElapsedTimer>
#include <QString>
#include <QStringList>

// Runs `sh -c script` through runProcess, every line to onLine; the wall time in ns.
inline QCoro::Task<qint64> timedRun(QString script, LineSink onLine)
{
    const QString sh = QStringLiteral("/bin/sh");
    const QStringList arguments{QStringLiteral("-c"), script};
    QElapsedTimer clock;
    clock.start();
    const int status = co_await runProcess(sh, arguments, nullptr, std::move(onLine));
    if (status != 0)
        qFatal("the child ended with status %d", status);
    co_return clock.nsecsElapsed();
}
