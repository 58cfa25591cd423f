// The log window open while a child floods its output: the longest time between two
// frames of that window (what a reader sees as a stutter), against the same child
// writing into a plain pipe.

#include "app/appmodel.h"
#include "app/windowsetup.h"
#include "process/logstore.h"
#include "process/runprocess.h"
#include "testenv.h"

#include <QCoroTask>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQuickItem>
#include <QQuickStyle>
#include <QQuickWindow>
#include <QTest>

#include <algorithm>
#include <cstdio>

using namespace Qt::StringLiterals;

namespace {
constexpr int lineCount = 1000000;
const QString child = u"awk 'BEGIN{for(i=0;i<%1;i++) printf \"line %07d the quick brown fox "
                      u"jumps over the lazy dog %d\\n\", i, i}'"_s.arg(lineCount);

QCoro::Task<qint64> timedRun(QString script, LineSink onLine)
{
    const QString sh = u"/bin/sh"_s;
    const QStringList arguments{u"-c"_s, script};
    QElapsedTimer clock;
    clock.start();
    co_await runProcess(sh, arguments, nullptr, std::move(onLine));
    co_return clock.nsecsElapsed();
}

struct Results
{
    qint64 pipeNs = 0;
    qint64 floodNs = 0;
    double longestGapMs = 0;
    double longestFrameMs = 0;
    int frames = 0;
    QString error;
};

QCoro::Task<Results> measure(AppModel &model, QQuickWindow *main)
{
    Results results;
    results.pipeNs = co_await timedRun(child + u" | cat > /dev/null"_s, [](const QString &) {});

    main->findChild<QQuickItem *>(u"content"_s)->setProperty("showLog", true);
    QQuickWindow *logWindow = nullptr;
    (void)QTest::qWaitFor([&] {
        for (QWindow *w : QGuiApplication::topLevelWindows())
            if (w->title() == u"Log"_s && w->isExposed())
                logWindow = qobject_cast<QQuickWindow *>(w);
        return logWindow != nullptr;
    });
    if (!logWindow) {
        results.error = u"the log window did not open"_s;
        co_return results;
    }
    QTest::qWait(200);

    // A frame starts when the scene graph syncs and ends when it is on screen.
    QElapsedTimer clock;
    clock.start();
    qint64 frameStart = -1, lastSwap = -1;
    bool flooding = true;
    auto onSync = [&] { frameStart = clock.nsecsElapsed(); };
    auto onSwap = [&] {
        const qint64 now = clock.nsecsElapsed();
        if (flooding && lastSwap >= 0)
            results.longestGapMs = std::max(results.longestGapMs, double(now - lastSwap) / 1e6);
        if (frameStart >= 0)
            results.longestFrameMs =
                std::max(results.longestFrameMs, double(now - frameStart) / 1e6);
        lastSwap = now;
        ++results.frames;
    };
    QObject::connect(logWindow, &QQuickWindow::beforeSynchronizing, logWindow, onSync,
                     Qt::DirectConnection);
    QObject::connect(logWindow, &QQuickWindow::frameSwapped, logWindow, onSwap,
                     Qt::DirectConnection);

    LogStore *log = model.log();
    const qint64 start = clock.nsecsElapsed();
    co_await timedRun(child, [log](const QString &line) { log->append(line); });
    const QString lastLine = QString::asprintf(
        "line %07d the quick brown fox jumps over the lazy dog %d", lineCount - 1, lineCount - 1);
    (void)QTest::qWaitFor(
        [&] { return !log->lines().isEmpty() && log->lines().last() == lastLine; });
    results.floodNs = clock.nsecsElapsed() - start;
    // The last lines reach the window within a frame or two.
    QObject *area = logWindow->findChild<QObject *>(u"logText"_s);
    if (!QTest::qWaitFor([&] { return area->property("shownText").toString().endsWith(lastLine); }))
        results.error = u"the window did not show the last line"_s;
    flooding = false;
    co_return results;
}

QCoro::Task<void> runAndQuit(AppModel &model, QQuickWindow *main)
{
    Results results = co_await measure(model, main);
    if (!results.error.isEmpty()) {
        std::fprintf(stderr, "bench_logview: %s\n", qPrintable(results.error));
        QCoreApplication::exit(1);
        co_return;
    }
    std::printf("logview_longest_frame_gap_ms: %.1f (goal < 50)\n", results.longestGapMs);
    std::printf("logview_longest_frame_ms: %.1f (goal < 50)\n", results.longestFrameMs);
    std::printf("logview_frames: %d in %.1f s\n", results.frames, double(results.floodNs) / 1e9);
    std::printf("logview_flood_vs_pipe: %.2f (the child into a pipe: %.2f s)\n",
                double(results.floodNs) / double(results.pipeNs), double(results.pipeNs) / 1e9);
    std::fflush(stdout);
    QCoreApplication::exit(0);
}
} // namespace

int main(int argc, char **argv)
{
    // The program's own scene graph (see main.cpp).
    if (qEnvironmentVariableIsEmpty("QT_QUICK_BACKEND"))
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    QGuiApplication app(argc, argv);
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
    auto task = runAndQuit(model, main);
    return app.exec();
}
