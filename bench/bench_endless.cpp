// A child that prints one line without end: 256 MB and not a single line feed. How
// fast runProcess carries it into the LogStore against the same child writing into
// a plain pipe, and what it costs the memory (peak RSS growth): lines are cut at
// LineSplitter::maxLineBytes, so the growth must not follow the line's length.

#include "process/linesplitter.h"
#include "process/logstore.h"
#include "process/runprocess.h"

#include <QCoreApplication>
#include <QCoroTask>
#include <QElapsedTimer>
#include <QFile>

#include <cstdio>

using namespace Qt::StringLiterals;

namespace {
constexpr qint64 lineBytes = 256LL * 1000 * 1000;
const QString child = u"head -c %1 /dev/zero | tr '\\0' x"_s.arg(lineBytes);

qint64 peakRssKb()
{
    QFile status(u"/proc/self/status"_s);
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}

QCoro::Task<qint64> timedRun(QString script, LineSink onLine)
{
    const QString sh = u"/bin/sh"_s;
    const QStringList arguments{u"-c"_s, script};
    QElapsedTimer clock;
    clock.start();
    const int status = co_await runProcess(sh, arguments, nullptr, std::move(onLine));
    if (status != 0)
        qFatal("the child ended with status %d", status);
    co_return clock.nsecsElapsed();
}

QCoro::Task<void> runAndQuit()
{
    const LineSink ignore = [](const QString &) {};
    const qint64 pipeNs = co_await timedRun(child + u" | cat > /dev/null"_s, ignore);
    const qint64 rssBefore = peakRssKb();
    LogStore store;
    qint64 longest = 0;
    qint64 total = 0;
    auto sink = [&](const QString &line) {
        longest = std::max(longest, qint64(line.size()));
        total += line.size();
        store.append(line);
    };
    const qint64 processNs = co_await timedRun(child, sink);
    QCoreApplication::processEvents();
    const double growthMb = double(peakRssKb() - rssBefore) / 1024.0;
    if (total != lineBytes || longest > LineSplitter::maxLineBytes) {
        std::fprintf(stderr, "bench_endless: %lld characters, longest line %lld\n",
                     static_cast<long long>(total), static_cast<long long>(longest));
        QCoreApplication::exit(1);
        co_return;
    }
    std::printf("endless_line_mb_per_s: %.0f\n", double(lineBytes) / 1e6 / (processNs / 1e9));
    std::printf("endless_line_vs_pipe: %.2f (goal ≤ 3)\n", double(processNs) / double(pipeNs));
    std::printf("endless_line_rss_growth_mb: %.1f (goal < 30)\n", growthMb);
    std::fflush(stdout);
    QCoreApplication::exit(0);
}
} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    auto task = runAndQuit();
    return app.exec();
}
