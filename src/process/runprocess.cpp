#include "runprocess.h"

#include "linesplitter.h"
#include "processfailure.h"

#include <QCoreApplication>
#include <QProcess>

#include <csignal>
#include <sys/prctl.h>
#include <sys/types.h>
#include <unistd.h>

namespace {
// Qt's text reads "execvp: No such file or directory"; the reason is the part after
// the last colon, in the system's own words.
QString launchReason(const QProcess &process)
{
    const QString text = process.errorString();
    const qsizetype colon = text.lastIndexOf(u": ");
    return colon < 0 ? text : text.mid(colon + 2);
}
} // namespace

QCoro::Task<int> runProcess(QString executable, QStringList arguments,
                            std::shared_ptr<ProcessBox> box, LineSink onLine)
{
    auto *process = new QProcess;
    process->setProgram(executable);
    process->setArguments(arguments);
    process->setProcessChannelMode(QProcess::MergedChannels);
    process->setStandardInputFile(QProcess::nullDevice());
    process->setProcessEnvironment(box->environment());

    auto splitter = std::make_shared<LineSplitter>();
    QObject::connect(
        process, &QProcess::readyReadStandardOutput, process,
        [process, splitter, onLine] { splitter->feed(process->readAllStandardOutput(), onLine); });
    Wake end(box->scope());
    bool failedToStart = false;
    QObject::connect(process, &QProcess::finished, process, [&end] { end.wake(); });
    QObject::connect(process, &QProcess::errorOccurred, process,
                     [&end, &failedToStart](QProcess::ProcessError error) {
                         if (error == QProcess::FailedToStart) {
                             failedToStart = true;
                             end.wake();
                         }
                     });

    // A group of its own, so that a terminal's signals and the run's own stop reach
    // what the child starts in turn. Both sides set it: whichever runs first wins the
    // race against an early stop. The child also dies with the launcher, however the
    // launcher dies: an orphaned unpack or import must never write into what the
    // next run sets up.
    process->setChildProcessModifier([] {
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    });
    process->start(QIODevice::ReadOnly);
    if (const qint64 pid = process->processId(); pid > 0)
        ::setpgid(pid_t(pid), pid_t(pid));
    box->started(process);

    try {
        co_await end.wait();
    } catch (const Cancelled &) {
        // The owner is going. Nothing may reach it any more; the child is ended as a
        // stop ends it, and its process object lives on until it has gone.
        QObject::disconnect(process, nullptr, nullptr, nullptr);
        if (process->state() == QProcess::NotRunning) {
            process->deleteLater();
        } else {
            // With the application as parent it still goes if the program ends first.
            process->setParent(QCoreApplication::instance());
            QObject::connect(process, &QProcess::finished, process, &QObject::deleteLater);
            box->terminate();
        }
        throw;
    }
    QObject::disconnect(process, nullptr, nullptr, nullptr);
    // Deleted later: the signal that ended the wait may still be on the stack.
    process->deleteLater();
    if (failedToStart)
        throw LaunchError(launchReason(*process), int(process->error()));
    box->ended();

    splitter->feed(process->readAllStandardOutput(), onLine);
    for (const QString &line : splitter->flush())
        onLine(line);
    // For a CrashExit, QProcess reports the terminating signal as the exit code.
    co_return process->exitCode();
}
