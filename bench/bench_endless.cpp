// A child that prints one line without end: 256 MB and not a single line feed. How
// fast runProcess carries it into the LogStore against the same child writing into
// a plain pipe, and what it costs the memory (peak RSS growth): lines are cut at
// LineSplitter::maxLineBytes, so the growth must not follow the line's length.

#include "process/linesplitter.h"
#include "process/logstore.h"
#include "process/runprocess.h"

#include <QCoreApplication>

#include <algorithm>
#include <cstdio>
#include <malloc.h>

#include "benchfile.h"
#include "rounds.h"
#include "rssgrowth.h"
#include "timedrun.h"

using namespace Qt::StringLiterals;

namespace {
constexpr qint64 lineBytes = 256LL * 1000 * 1000;
constexpr int rounds = 7;
const QString child = u"head -c %1 /dev/zero | tr '\\0' x"_s.arg(lineBytes);

struct Carry
{
    qint64 ns = 0;
    double rssGrowthMb = 0;
};

Carry launcherCarry()
{
    // What the last round freed goes back to the system first, so that every round's
    // growth starts from the same footing rather than from a heap already grown.
    malloc_trim(0);
    RssGrowth rss;
    LogStore store;
    qint64 longest = 0;
    qint64 total = 0;
    auto sink = [&](const QString &line) {
        longest = std::max(longest, qint64(line.size()));
        total += line.size();
        store.append(line);
    };
    Carry carry;
    carry.ns = timedRunWaiting(child, sink);
    QCoreApplication::processEvents();
    carry.rssGrowthMb = rss.stopMb();
    if (total != lineBytes || longest > LineSplitter::maxLineBytes)
        throw Failure{u"%1 characters, longest line %2"_s.arg(total).arg(longest)};
    return carry;
}
} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const Figure rate{"endless_line_mb_per_s"}, vsPipeFigure{"endless_line_vs_pipe", "≤ 3"},
        rssGrowth{"endless_line_rss_growth_mb", "< 30"};
    Report report("bench_endless", {rate, vsPipeFigure, rssGrowth});
    report.part(report.all(), [&] {
        const QString piped = child + u" | cat > /dev/null"_s;
        auto pipe = [&piped] { return timedRunWaiting(piped, [](const QString &) {}); };
        const auto [carries, pipes] = interleavedRounds(rounds, 1, launcherCarry, pipe);
        const Samples ns = samplesOf(carries, &Carry::ns);
        const Samples vsPipe = ratios(ns, Samples(pipes));
        report.print(rate, fixed(double(lineBytes) / 1e6 / (ns.median() / 1e9), 0));
        report.print(vsPipeFigure, fixed(vsPipe.median(), 2), vsPipe.rounds(2));
        report.print(rssGrowth, fixed(samplesOf(carries, &Carry::rssGrowthMb).median(), 1));
    });
    return report.exitCode();
}
