// The log window open while a child floods its output: the longest time between two
// frames of that window (what a reader sees as a stutter), against the same child
// writing into a plain pipe; and the same while the reader holds a selection.

#include "app/appmodel.h"
#include "app/logtext.h"
#include "app/windowsetup.h"
#include "process/logstore.h"
#include "testenv.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QProcess>
#include <QQmlApplicationEngine>
#include <QQuickItem>
#include <QQuickStyle>
#include <QQuickWindow>
#include <QTest>
#include <QTimer>

#include <algorithm>
#include <cstdio>

#include "benchfile.h"
#include "rounds.h"
#include "timedrun.h"

using namespace Qt::StringLiterals;

namespace {
constexpr int lineCount = 1000000;
// A flood lasts about half a second, and its longest gap is one extreme of it: the
// median needs a good number of them to hold still.
constexpr int rounds = 15;
const QString child = u"awk 'BEGIN{for(i=0;i<%1;i++) printf \"line %07d the quick brown fox "
                      u"jumps over the lazy dog %d\\n\", i, i}'"_s.arg(lineCount);

struct Flood
{
    qint64 ns = 0;
    double longestGapMs = 0;
    double longestFrameMs = 0;
    int frames = 0;
};

QQuickWindow *openLogWindow(QQuickWindow *main)
{
    main->findChild<QQuickItem *>(u"content"_s)->setProperty("showLog", true);
    QQuickWindow *logWindow = nullptr;
    (void)QTest::qWaitFor([&] {
        for (QWindow *w : QGuiApplication::topLevelWindows())
            if (w->title() == u"Log"_s && w->isExposed())
                logWindow = qobject_cast<QQuickWindow *>(w);
        return logWindow != nullptr;
    });
    if (!logWindow)
        throw Failure{u"the log window did not open"_s};
    QTest::qWait(200);
    return logWindow;
}

// One flood into the log, which the open window follows.
Flood flood(LogStore *log, QQuickWindow *logWindow, bool selecting)
{
    // Every round floods the same lines: the last one counts only once it came anew.
    log->clear();
    if (!QTest::qWaitFor([&] { return log->lines().isEmpty(); }))
        throw Failure{u"the log did not empty"_s};
    QTest::qWait(50);

    // A frame starts when the scene graph syncs and ends when it is on screen.
    Flood result;
    QElapsedTimer clock;
    clock.start();
    qint64 frameStart = -1, lastSwap = -1;
    bool flooding = true;
    auto onSync = [&] { frameStart = clock.nsecsElapsed(); };
    auto onSwap = [&] {
        const qint64 now = clock.nsecsElapsed();
        if (flooding && lastSwap >= 0)
            result.longestGapMs = std::max(result.longestGapMs, double(now - lastSwap) / 1e6);
        if (frameStart >= 0)
            result.longestFrameMs = std::max(result.longestFrameMs, double(now - frameStart) / 1e6);
        lastSwap = now;
        ++result.frames;
    };
    const auto synced = QObject::connect(logWindow, &QQuickWindow::beforeSynchronizing, logWindow,
                                         onSync, Qt::DirectConnection);
    const auto swapped = QObject::connect(logWindow, &QQuickWindow::frameSwapped, logWindow, onSwap,
                                          Qt::DirectConnection);

    // A reader holding lines 100 to 2900 selected, taken again as the flood moves
    // them up and out.
    QTimer holder;
    auto *text = logWindow->findChild<LogText *>(u"logText"_s);
    QObject::connect(&holder, &QTimer::timeout, text, [text] {
        text->moveCaret(100, 3, false);
        text->moveCaret(2900, 5, true);
    });
    if (selecting)
        holder.start(100);

    const qint64 start = clock.nsecsElapsed();
    timedRunWaiting(child, [log](const QString &line) { log->append(line); });
    const QString lastLine = QString::asprintf(
        "line %07d the quick brown fox jumps over the lazy dog %d", lineCount - 1, lineCount - 1);
    (void)QTest::qWaitFor(
        [&] { return !log->lines().isEmpty() && log->lines().last() == lastLine; });
    result.ns = clock.nsecsElapsed() - start;
    // The last lines reach the window within a frame or two.
    QObject *area = logWindow->findChild<QObject *>(u"logText"_s);
    const bool shown =
        QTest::qWaitFor([&] { return area->property("shownText").toString().endsWith(lastLine); });
    flooding = false;
    QObject::disconnect(synced);
    QObject::disconnect(swapped);
    if (!shown)
        throw Failure{u"the window did not show the last line"_s};
    return result;
}
// One window's floods, in a process of its own: after two floods that lay out the
// window's first lines and warm its scripts up, one that counts, printed as "ns gap frame frames".
// A window settles into one rhythm of frames for its whole life, which a round in a fresh process
// draws anew, so that the median over rounds holds from one run to the next.
const char *const floodOption = "--flood";

int floodAlone(bool selecting)
{
    TestEnv env;
    QQuickStyle::setStyle(u"Fusion"_s);
    AppModel model{AppModel::Config{}};
    registerWindowTypes(&model);
    QQmlApplicationEngine engine;
    useBuiltInViews(engine);
    engine.load(QUrl(QString::fromLatin1(mainWindowUrl)));
    auto *main = qobject_cast<QQuickWindow *>(engine.rootObjects().value(0));
    if (!main)
        return 1;
    QQuickWindow *logWindow = openLogWindow(main);
    for (int warmUp = 0; warmUp < 2; ++warmUp)
        flood(model.log(), logWindow, selecting);
    const Flood counted = flood(model.log(), logWindow, selecting);
    std::printf("%lld %.3f %.3f %d\n", static_cast<long long>(counted.ns), counted.longestGapMs,
                counted.longestFrameMs, counted.frames);
    return 0;
}

Flood floodInAProcess(bool selecting)
{
    QProcess child;
    QStringList arguments{QString::fromLatin1(floodOption)};
    if (selecting)
        arguments << u"selecting"_s;
    child.start(QCoreApplication::applicationFilePath(), arguments);
    if (!child.waitForFinished(120000) || child.exitStatus() != QProcess::NormalExit ||
        child.exitCode() != 0)
        throw Failure{u"a flood failed (exit code %1): "_s.arg(child.exitCode()) +
                      QString::fromLocal8Bit(child.readAllStandardError())};
    const QByteArrayList fields = child.readAllStandardOutput().trimmed().split(' ');
    if (fields.size() != 4)
        throw Failure{u"a flood reported nothing"_s};
    return {fields[0].toLongLong(), fields[1].toDouble(), fields[2].toDouble(), fields[3].toInt()};
}
} // namespace

int main(int argc, char **argv)
{
    const bool oneFlood = argc >= 2 && qstrcmp(argv[1], floodOption) == 0;
    // The program's own scene graph (see main.cpp).
    if (oneFlood && qEnvironmentVariableIsEmpty("QT_QUICK_BACKEND"))
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    QGuiApplication app(argc, argv);
    if (oneFlood) {
        try {
            return floodAlone(argc == 3);
        } catch (const Failure &failure) {
            std::fprintf(stderr, "bench_logview: %s\n", qPrintable(failure.what));
            return 1;
        }
    }
    const Figure gap{"logview_longest_frame_gap_ms", "< 50"},
        frame{"logview_longest_frame_ms", "< 50"}, frameCount{"logview_frames"},
        vsPipeFigure{"logview_flood_vs_pipe"},
        selectingGap{"logview_longest_frame_gap_selecting_ms", "< 50"};
    Report report("bench_logview", {gap, frame, frameCount, vsPipeFigure, selectingGap});
    auto pipe = [] {
        return timedRunWaiting(child + u" | cat > /dev/null"_s, [](const QString &) {});
    };
    report.part({gap, frame, frameCount, vsPipeFigure}, [&] {
        const auto [floods, pipes] = interleavedRounds(
            rounds, 0, [] { return floodInAProcess(false); }, pipe);
        const Samples gaps = samplesOf(floods, &Flood::longestGapMs);
        const Samples ns = samplesOf(floods, &Flood::ns);
        const Samples vsPipe = ratios(ns, Samples(pipes));
        report.print(gap, fixed(gaps.median(), 1), gaps.rounds(1));
        report.print(frame, fixed(samplesOf(floods, &Flood::longestFrameMs).median(), 1));
        report.print(frameCount, fixed(samplesOf(floods, &Flood::frames).median(), 0) + u" in "_s +
                                     fixed(ns.median() / 1e9, 1) + u" s"_s);
        report.print(vsPipeFigure, fixed(vsPipe.median(), 2),
                     u"the child into a pipe: "_s + fixed(Samples(pipes).median() / 1e9, 2) +
                         u" s; "_s + vsPipe.rounds(2));
    });
    report.part({selectingGap}, [&] {
        const auto [held, heldPipes] = interleavedRounds(
            rounds, 0, [] { return floodInAProcess(true); }, pipe);
        const Samples heldGaps = samplesOf(held, &Flood::longestGapMs);
        report.print(selectingGap, fixed(heldGaps.median(), 1), heldGaps.rounds(1));
    });
    return report.exitCode();
}
