// A child that floods its output: how fast runProcess carries a million lines into
// the LogStore, against the same child writing into a plain pipe, and what the
// flood costs the event loop (its longest stall) and the memory (peak RSS growth).

#include "process/logstore.h"
#include "process/runprocess.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <malloc.h>

#include "benchfile.h"
#include "rounds.h"
#include "rssgrowth.h"
#include "timedrun.h"

using namespace Qt::StringLiterals;

namespace {
constexpr int lineCount = 1000000;
constexpr int rounds = 9;
// About 64 MB. awk (mawk here) writes it in well under half a second.
const QString child = u"awk 'BEGIN{for(i=0;i<%1;i++) printf \"line %07d the quick brown fox "
                      u"jumps over the lazy dog %d\\n\", i, i}'"_s.arg(lineCount);

QString expectedLine(int i)
{
    return QString::asprintf("line %07d the quick brown fox jumps over the lazy dog %d", i, i);
}

// Records the worst lateness of a 1 ms timer: the longest time the event loop was
// kept from its other work.
class StallMeter
{
public:
    StallMeter()
    {
        m_timer.setTimerType(Qt::PreciseTimer);
        m_timer.setInterval(1);
        QObject::connect(&m_timer, &QTimer::timeout, [this] {
            const qint64 now = m_clock.nsecsElapsed();
            m_worstNs = std::max(m_worstNs, now - m_lastNs - 1000000);
            m_lastNs = now;
        });
    }
    void start()
    {
        m_clock.start();
        m_lastNs = 0;
        m_timer.start();
    }
    void stop() { m_timer.stop(); }
    double worstMs() const { return double(m_worstNs) / 1e6; }

private:
    QTimer m_timer;
    QElapsedTimer m_clock;
    qint64 m_lastNs = 0;
    qint64 m_worstNs = 0;
};

struct Flood
{
    qint64 ns = 0;
    double stallMs = 0;
    double rssGrowthMb = 0;
};

// One flood into a fresh LogStore, checked line by line at the end.
Flood launcherFlood()
{
    // What the last round freed goes back to the system first, so that every round's
    // growth starts from the same footing rather than from a heap already grown.
    malloc_trim(0);
    RssGrowth rss;
    LogStore store;
    int delivered = 0;
    auto sink = [&store, &delivered](const QString &line) {
        ++delivered;
        store.append(line);
    };
    const QString lastLine = expectedLine(lineCount - 1);
    StallMeter stalls;
    stalls.start();
    QElapsedTimer clock;
    clock.start();
    timedRunWaiting(child, sink);
    // The run ends when the last line is in the store, not merely handed over.
    while (store.lines().isEmpty() || store.lines().constLast() != lastLine)
        QCoreApplication::processEvents();
    Flood flood{clock.nsecsElapsed(), 0, 0};
    stalls.stop();
    flood.stallMs = stalls.worstMs();
    flood.rssGrowthMb = rss.stopMb();

    if (delivered != lineCount)
        throw Failure{u"%1 lines delivered, not %2"_s.arg(delivered).arg(lineCount)};
    const QStringList &kept = store.lines();
    if (kept.size() != LogStore::maxLines)
        throw Failure{u"the store holds %1 lines"_s.arg(kept.size())};
    for (qsizetype i = 0; i < kept.size(); ++i) {
        const int number = int(lineCount - LogStore::maxLines + i);
        if (kept[i] != expectedLine(number))
            throw Failure{u"line %1 of the store is \"%2\""_s.arg(i).arg(kept[i])};
    }
    return flood;
}
} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const Figure rate{"process_lines_per_s"}, vsPipeFigure{"process_vs_pipe", "≤ 1.5"},
        stall{"process_gui_stall_ms", "≤ 50"}, rssGrowth{"process_rss_growth_mb", "< 30"};
    Report report("bench_process", {rate, vsPipeFigure, stall, rssGrowth});
    report.part(report.all(), [&] {
        const QString piped = child + u" | cat > /dev/null"_s;
        auto pipe = [&piped] { return timedRunWaiting(piped, [](const QString &) {}); };
        // The uncounted round starts the reader thread and the child's tools once.
        const auto [floods, pipes] = interleavedRounds(rounds, 1, launcherFlood, pipe);
        const Samples ns = samplesOf(floods, &Flood::ns);
        const Samples vsPipe = ratios(ns, Samples(pipes));
        report.print(rate, fixed(lineCount / (ns.median() / 1e9), 0));
        report.print(vsPipeFigure, fixed(vsPipe.median(), 2), vsPipe.rounds(2));
        report.print(stall, fixed(samplesOf(floods, &Flood::stallMs).median(), 1));
        report.print(rssGrowth, fixed(samplesOf(floods, &Flood::rssGrowthMb).median(), 1));
    });
    return report.exitCode();
}
