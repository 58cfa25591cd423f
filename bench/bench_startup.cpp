// Start of the real program under Xvfb: the time to the main window's first rendered
// frame and the resident memory 5 s after start, against a bare Qt Quick window that
// shows one line of text (vantro-bare-window, the floor for this toolkit here), the
// same window with one Fusion button (what Qt Quick Controls alone cost), and
// against the program on Qt Quick's default OpenGL scene graph, all on one X server.
// For scale, a Python/GTK launcher of the same kind needs about 920 ms and 115 MB
// on this machine.

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "report.h"
#include "rounds.h"

using namespace Qt::StringLiterals;

namespace {
// A start that ends at its first frame takes a fraction of a second, so the frames get
// many rounds; the resident set barely moves from one start to the next, and each of
// those starts waits 5 s.
constexpr int frameRounds = 61;
constexpr int rssRounds = 3;
constexpr qint64 rssAfterMs = 5000;

qint64 rssKb(qint64 pid)
{
    QFile status(u"/proc/%1/status"_s.arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong();
    return -1;
}

// A private X server, so the figures do not depend on the desktop the bench runs in.
class Xvfb
{
public:
    Xvfb()
    {
        for (int number = 90; number < 120; ++number) {
            if (QFileInfo::exists(u"/tmp/.X11-unix/X%1"_s.arg(number)) ||
                QFileInfo::exists(u"/tmp/.X%1-lock"_s.arg(number)))
                continue;
            m_display = u":%1"_s.arg(number);
            m_server.start(u"Xvfb"_s, {m_display, u"-screen"_s, u"0"_s, u"1280x1024x24"_s,
                                       u"-nolisten"_s, u"tcp"_s});
            if (!m_server.waitForStarted())
                throw Failure{u"Xvfb cannot be started"_s};
            QElapsedTimer clock;
            clock.start();
            while (!QFileInfo::exists(u"/tmp/.X11-unix/X%1"_s.arg(number)) &&
                   clock.elapsed() < 5000)
                QThread::msleep(20);
            return;
        }
        throw Failure{u"no free X display number"_s};
    }
    ~Xvfb()
    {
        m_server.terminate();
        m_server.waitForFinished();
    }
    QString display() const { return m_display; }

private:
    QProcess m_server;
    QString m_display;
};

struct Run
{
    double firstFrameMs;
    double rssMb;
};

// Starts the program and waits for the scene graph's report of its first frame: the
// render loop's timing line, which any Qt Quick window prints alike, so the bare
// window needs no code of its own to report it. Without `waitForRss` the program is
// ended right after that frame.
Run startOnce(const QString &program, const QStringList &arguments, const QString &display,
              const QString &backend, bool waitForRss = true)
{
    QTemporaryDir home;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(u"DISPLAY"_s, display);
    env.insert(u"QT_QPA_PLATFORM"_s, u"xcb"_s);
    env.insert(u"QT_QUICK_BACKEND"_s, backend);
    env.insert(u"QT_LOGGING_RULES"_s, u"qt.scenegraph.time.renderloop.debug=true"_s);
    // Its own data and settings, and no session bus: a launcher already running on
    // this desktop must not take the start over.
    env.insert(u"XDG_DATA_HOME"_s, home.path() + u"/data"_s);
    env.insert(u"XDG_CONFIG_HOME"_s, home.path() + u"/config"_s);
    env.insert(u"DBUS_SESSION_BUS_ADDRESS"_s, u"disabled:"_s);

    QProcess launcher;
    launcher.setProcessEnvironment(env);
    launcher.setProcessChannelMode(QProcess::SeparateChannels);
    // The report comes on stderr; waitForReadyRead wakes for the read channel only, and
    // on stdout every frame would be seen up to 100 ms late.
    launcher.setReadChannel(QProcess::StandardError);
    QElapsedTimer clock;
    clock.start();
    launcher.start(program, arguments);
    if (!launcher.waitForStarted())
        throw Failure{u"cannot start "_s + program};
    QByteArray seen;
    double firstFrameMs = -1;
    while (firstFrameMs < 0 && clock.elapsed() < 20000) {
        if (!launcher.waitForReadyRead(100) && launcher.state() != QProcess::Running)
            break;
        seen += launcher.readAllStandardError();
        if (seen.contains(" rendered"))
            firstFrameMs = double(clock.nsecsElapsed()) / 1e6;
    }
    if (firstFrameMs < 0)
        throw Failure{u"no frame reported by "_s + program + u"; it said: "_s +
                      QString::fromUtf8(seen)};
    if (!waitForRss) {
        launcher.kill();
        launcher.waitForFinished();
        return {firstFrameMs, 0};
    }
    QThread::msleep(ulong(std::max<qint64>(0, rssAfterMs - clock.elapsed())));
    const qint64 kb = rssKb(launcher.processId());
    launcher.kill();
    launcher.waitForFinished();
    return {firstFrameMs, double(kb) / 1024.0};
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QString program = QStringLiteral(VANTRO_PROGRAM);
    const QString bare = QStringLiteral(VANTRO_BARE_WINDOW);
    const Figure frameMs{"startup_first_frame_ms", "≤ 300"},
        vsBareFigure{"startup_vs_bare_window", "≤ 1.5"},
        bareFrameMs{"startup_bare_window_first_frame_ms"},
        buttonVsBareFigure{"startup_one_fusion_button_vs_bare_window"},
        openglFrameMs{"startup_first_frame_opengl_ms"}, rssMb{"startup_rss_5s_mb", "≤ 60"},
        bareRssMb{"startup_bare_window_rss_5s_mb"}, openglRssMb{"startup_rss_5s_opengl_mb"};
    Report report("bench_startup", {frameMs, vsBareFigure, bareFrameMs, buttonVsBareFigure,
                                    openglFrameMs, rssMb, bareRssMb, openglRssMb});
    report.part(report.all(), [&] {
        Xvfb xvfb;
        const QString display = xvfb.display();
        // Any backend name but "software" leaves Qt Quick on its default, OpenGL, scene
        // graph; the bare window runs on the software one, as the program does.
        auto start = [&display](const QString &which, const QString &backend, bool rss,
                                const QStringList &arguments = {}) {
            return [&display, which, backend, rss, arguments] {
                const Run run = startOnce(which, arguments, display, backend, rss);
                return rss ? run.rssMb : run.firstFrameMs;
            };
        };
        report.part({frameMs, vsBareFigure, bareFrameMs, buttonVsBareFigure, openglFrameMs}, [&] {
            // The uncounted round reads the programs' libraries from disk.
            const auto [frame, bareFrame, buttonFrame, openglFrame] =
                interleavedRounds(frameRounds, 1, start(program, u"software"_s, false),
                                  start(bare, u"software"_s, false),
                                  start(bare, u"software"_s, false, {u"--button"_s}),
                                  start(program, u"rhi"_s, false));
            const Samples vsBare = ratios(Samples(frame), Samples(bareFrame));
            const Samples buttonVsBare = ratios(Samples(buttonFrame), Samples(bareFrame));
            report.print(frameMs, fixed(Samples(frame).median(), 0), u"GTK peer about 920"_s);
            report.print(vsBareFigure, fixed(vsBare.median(), 2), vsBare.rounds(2));
            report.print(bareFrameMs, fixed(Samples(bareFrame).median(), 0));
            // No goal: how much of the bare window's margin Qt Quick Controls alone takes.
            report.print(buttonVsBareFigure, fixed(buttonVsBare.median(), 2),
                         buttonVsBare.rounds(2));
            report.print(openglFrameMs, fixed(Samples(openglFrame).median(), 0),
                         u"software/opengl "_s +
                             fixed(ratios(Samples(frame), Samples(openglFrame)).median(), 2));
        });
        report.part({rssMb, bareRssMb, openglRssMb}, [&] {
            const auto [rss, bareRss, openglRss] =
                interleavedRounds(rssRounds, 0, start(program, u"software"_s, true),
                                  start(bare, u"software"_s, true), start(program, u"rhi"_s, true));
            report.print(rssMb, fixed(Samples(rss).median(), 1), u"GTK peer about 115"_s);
            report.print(bareRssMb, fixed(Samples(bareRss).median(), 1));
            report.print(openglRssMb, fixed(Samples(openglRss).median(), 1),
                         u"software/opengl "_s +
                             fixed(ratios(Samples(rss), Samples(openglRss)).median(), 2));
        });
    });
    return report.exitCode();
}
