// A child that prints one line without end: 256 MB and not a single line feed. How
// fast runProcess carries it into the LogStore against the same child writing into
// a plain pipe, and what it costs the memory (peak RSS growth): lines are cut at
// LineSplitter::maxLineBytes, so the growth must not follow the line's length.

#include "process/linesplitter.h"
#include "process/logstore.h"
#include "process/runprocess.h"
#include "rssgrowth.h"
#include "timedrun.h"

#include <QCoreApplication>
#include <QCoroTask>
#include <QElapsedTimer>
#include <QFile>

#include <cstdio>

using namespace Qt::StringLiterals;

namespace {
constexpr qint64 lineBytes = 256LL * 1000 * 1000;
const QString child = u"head -c %1 /dev/zero | tr '\\0' x"_s.arg(lineBytes);

QCoro::Task<void> runAndQuit()
{
    const LineSink ignore = [](const QString &) {};
    const qint64 pipeNs = co_await timedRun(child + u" | cat > /dev/null"_s, ignore);
    const qint64 rssBefore = procStatusKb("VmHWM:");
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
    const double growthMb = double(procStatusKb("VmHWM:") - rssBefore) / 1024.0;
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
