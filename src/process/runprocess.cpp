#include "runprocess.h"

#include "linesplitter.h"
#include "processfailure.h"

#include <QCoroSignal>

#include <csignal>
#include <sys/prctl.h>

#include <sys/types.h>
#include <unistd.h>

namespace {
// Gathers the two ways a run can end (it finished, or it never started) into one
// signal that a coroutine can await.
class RunEnd : public QObject
{
    Q_OBJECT
public:
    bool ended = false;
    bool failedToStart = false;

    void end(bool startFailure)
    {
        if (ended)
            return;
        ended = true;
        failedToStart = startFailure;
        Q_EMIT done();
    }

Q_SIGNALS:
    void done();
};

struct DeleteLater
{
    void operator()(QObject *object) const { object->deleteLater(); }
};
} // namespace

QCoro::Task<int> runProcess(QString executable, QStringList arguments,
                            std::shared_ptr<ProcessBox> box, LineSink onLine)
{
    // Deleted later: the last signal of the process may still be on the stack when
    // this coroutine resumes and returns.
    std::unique_ptr<QProcess, DeleteLater> process(new QProcess);
    process->setProgram(executable);
    process->setArguments(arguments);
    process->setProcessChannelMode(QProcess::MergedChannels);
    process->setStandardInputFile(QProcess::nullDevice());

    auto splitter = std::make_shared<LineSplitter>();
    QProcess *raw = process.get();
    QObject::connect(raw, &QProcess::readyReadStandardOutput, raw, [raw, splitter, onLine] {
        splitter->feed(raw->readAllStandardOutput(), onLine);
    });

    RunEnd end;
    QObject::connect(raw, &QProcess::finished, &end, [&end] { end.end(false); });
    QObject::connect(raw, &QProcess::errorOccurred, &end, [&end](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            end.end(true);
    });

    // A group of its own, so that a stop reaches what the child starts in turn. Both
    // sides set it: whichever runs first wins the race against an early stop.
    // The child also dies with the launcher, however the launcher dies: an orphaned
    // unpack or import must never write into what the next run sets up.
    process->setChildProcessModifier([] {
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    });
    raw->start(QIODevice::ReadOnly);
    if (const qint64 pid = raw->processId(); pid > 0)
        ::setpgid(pid_t(pid), pid_t(pid));
    if (box)
        box->setProcess(raw);
    if (!end.ended)
        co_await qCoro(&end, &RunEnd::done);

    QObject::disconnect(raw, &QProcess::readyReadStandardOutput, nullptr, nullptr);
    // The group id may be reused once the run is over: a late stop must not reach it.
    if (box)
        box->setProcess(nullptr);
    if (end.failedToStart)
        throw LaunchError(raw->errorString(), int(raw->error()));

    splitter->feed(raw->readAllStandardOutput(), onLine);
    for (const QString &line : splitter->flush())
        onLine(line);
    // For a CrashExit, QProcess reports the terminating signal as the exit code.
    co_return raw->exitCode();
}

#include "runprocess.moc"
