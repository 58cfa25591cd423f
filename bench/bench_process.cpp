// A child that floods its output: how fast runProcess carries a million lines into
// the LogStore, against the same child writing into a plain pipe, and what the
// flood costs the event loop (its longest stall) and the memory (peak RSS growth).

#include "process/logstore.h"
#include "process/runprocess.h"
#include "rssgrowth.h"
#include "timedrun.h"

#include <QCoreApplication>
#include <QCoroTask>
#include <QElapsedTimer>
#include <QFile>
#include <QTimer>

#include <algorithm>
#include <cstdio>

using namespace Qt::StringLiterals;

namespace {
constexpr int lineCount = 1000000;
constexpr int rounds = 3;
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

struct Results
{
    qint64 pipeNs = -1;
    qint64 processNs = -1;
    double stallMs = 0;
    double rssGrowthMb = 0;
    QString error;
};

QCoro::Task<Results> measure()
{
    Results results;
    const QString piped = child + u" | cat > /dev/null"_s;
    const LineSink ignore = [](const QString &) {};
    for (int round = 0; round < rounds; ++round) {
        const qint64 ns = co_await timedRun(piped, ignore);
        results.pipeNs = results.pipeNs < 0 ? ns : std::min(results.pipeNs, ns);
    }

    const qint64 rssBefore = procStatusKb("VmHWM:");
    const QString lastLine = expectedLine(lineCount - 1);
    for (int round = 0; round < rounds; ++round) {
        LogStore store;
        int delivered = 0;
        auto sink = [&store, &delivered](const QString &line) {
            ++delivered;
            store.append(line);
        };
        StallMeter stalls;
        stalls.start();
        QElapsedTimer clock;
        clock.start();
        co_await timedRun(child, sink);
        // The run ends when the last line is in the store, not merely handed over.
        while (store.lines().isEmpty() || store.lines().constLast() != lastLine)
            QCoreApplication::processEvents();
        const qint64 ns = clock.nsecsElapsed();
        stalls.stop();
        results.processNs = results.processNs < 0 ? ns : std::min(results.processNs, ns);
        results.stallMs = std::max(results.stallMs, stalls.worstMs());

        if (delivered != lineCount)
            results.error = u"%1 lines delivered, not %2"_s.arg(delivered).arg(lineCount);
        const QStringList &kept = store.lines();
        if (kept.size() != LogStore::maxLines)
            results.error = u"the store holds %1 lines"_s.arg(kept.size());
        for (qsizetype i = 0; results.error.isEmpty() && i < kept.size(); ++i) {
            const int number = int(lineCount - LogStore::maxLines + i);
            if (kept[i] != expectedLine(number))
                results.error = u"line %1 of the store is \"%2\""_s.arg(i).arg(kept[i]);
        }
        if (!results.error.isEmpty())
            break;
    }
    results.rssGrowthMb = double(procStatusKb("VmHWM:") - rssBefore) / 1024.0;
    co_return results;
}

QCoro::Task<void> runAndQuit()
{
    Results results;
    try {
        results = co_await measure();
    } catch (const std::exception &e) {
        results.error = QString::fromUtf8(e.what());
    }
    if (!results.error.isEmpty()) {
        std::fprintf(stderr, "bench_process: %s\n", qPrintable(results.error));
        QCoreApplication::exit(1);
        co_return;
    }
    const double seconds = double(results.processNs) / 1e9;
    std::printf("process_lines_per_s: %.0f\n", lineCount / seconds);
    std::printf("process_vs_pipe: %.2f (goal ≤ 1.5)\n",
                double(results.processNs) / double(results.pipeNs));
    std::printf("process_gui_stall_ms: %.1f (goal ≤ 50)\n", results.stallMs);
    std::printf("process_rss_growth_mb: %.1f (goal < 30)\n", results.rssGrowthMb);
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
