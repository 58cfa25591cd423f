// Cold start of the real program under Xvfb: the time to the main window's first
// rendered frame and the resident memory 5 s after start, with the software scene
// graph the program uses against Qt Quick's default OpenGL one on the same X server.
// For scale, a Python/GTK launcher of the same kind needs about 920 ms and 115 MB
// on this machine.

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <vector>

using namespace Qt::StringLiterals;

namespace {
constexpr int rounds = 3;
constexpr qint64 rssAfterMs = 5000;

struct Failure
{
    QString what;
};

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

// Starts the program and waits for the scene graph's report of its first frame.
Run startOnce(const QString &program, const QString &display, const QString &backend)
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
    QElapsedTimer clock;
    clock.start();
    launcher.start(program, {});
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
        throw Failure{u"no frame reported; the program said: "_s + QString::fromUtf8(seen)};
    QThread::msleep(ulong(std::max<qint64>(0, rssAfterMs - clock.elapsed())));
    const qint64 kb = rssKb(launcher.processId());
    launcher.kill();
    launcher.waitForFinished();
    return {firstFrameMs, double(kb) / 1024.0};
}

Run median(const QString &program, const QString &display, const QString &backend)
{
    std::vector<double> frames, rss;
    for (int round = 0; round < rounds; ++round) {
        const Run run = startOnce(program, display, backend);
        frames.push_back(run.firstFrameMs);
        rss.push_back(run.rssMb);
    }
    std::sort(frames.begin(), frames.end());
    std::sort(rss.begin(), rss.end());
    return {frames[rounds / 2], rss[rounds / 2]};
}
} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QString program = QCoreApplication::applicationDirPath() + u"/../src/vantro"_s;
    try {
        Xvfb xvfb;
        const Run software = median(program, xvfb.display(), u"software"_s);
        // Any other name leaves Qt Quick on its default, OpenGL, scene graph.
        const Run opengl = median(program, xvfb.display(), u"rhi"_s);
        std::printf("startup_first_frame_ms: %.0f (goal ≤ 300; GTK peer about 920)\n",
                    software.firstFrameMs);
        std::printf("startup_rss_5s_mb: %.1f (goal ≤ 80; GTK peer about 115)\n", software.rssMb);
        std::printf("startup_first_frame_opengl_ms: %.0f (software/opengl %.2f)\n",
                    opengl.firstFrameMs, software.firstFrameMs / opengl.firstFrameMs);
        std::printf("startup_rss_5s_opengl_mb: %.1f (software/opengl %.2f)\n", opengl.rssMb,
                    software.rssMb / opengl.rssMb);
    } catch (const Failure &failure) {
        std::fprintf(stderr, "bench_startup: %s\n", qPrintable(failure.what));
        return 1;
    }
    return 0;
}
