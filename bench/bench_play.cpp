// Play from the loopback server, timed to the moment the game's process starts:
//
// - a first Play from an empty disk (a 50 MB game zip and a 200 MB engine zip, both
//   incompressible; a fake engine that imports at once) against a shell pipeline
//   doing the same work with the system's tools in the same run: curl, sha512sum,
//   bsdtar, the engine's import, the game;
// - how far the launcher's resident set rises above its idle size during that Play;
// - a warm Play of an installed, imported project of 10,000 files.
//
// The server runs as a process of its own, so its memory stays out of the figures.
// The game's start is seen by inotify: the kernel reports the open of the engine
// program (by exec, and by the shell that reads the script) the moment it happens,
// on both sides alike.
#include "acquisition/enginemanager.h"
#include "app/appmodel.h"
#include "playworld.h"
#include "process/processfailure.h"
#include "testenv.h"
#include "testhttpserver.h"

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <optional>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "benchfile.h"
#include "rounds.h"
#include "rssgrowth.h"

using namespace Qt::StringLiterals;
using Clock = std::chrono::steady_clock;

namespace {
constexpr qint64 gameBytes = 50'000'000;
constexpr qint64 engineBytes = 200'000'000;
constexpr int firstRounds = 5;
constexpr int warmRounds = 9;
constexpr int warmFiles = 10'000;
constexpr int timeoutMs = 5 * 60 * 1000;
constexpr int stallMs = 60 * 1000;
const QString engineProgram = u"Godot_v4.3-stable_linux.x86_64"_s;
const QString engineZip = engineProgram + u".zip"_s;

// The phases of a first Play, in order; each ends where the next begins.
const QStringList phaseNames{u"game download"_s,    u"game unpack"_s,   u"engine download"_s,
                             u"checksum"_s,         u"engine unpack"_s, u"import"_s,
                             u"start of the game"_s};

double ms(Clock::duration d)
{
    return std::chrono::duration<double, std::milli>(d).count();
}

qint64 realtimeNs()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return qint64(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

// The moment a program file is opened after a given point, from inotify on a thread
// of its own, so that no polling interval enters the figure.
class SpawnWatch
{
public:
    SpawnWatch()
        : m_inotify(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)), m_wake(::eventfd(0, EFD_CLOEXEC))
    {
        if (m_inotify < 0 || m_wake < 0)
            throw Failure{u"inotify is not available"_s};
        m_thread = std::thread([this] { run(); });
    }
    ~SpawnWatch()
    {
        stop();
        ::close(m_inotify);
        ::close(m_wake);
    }
    SpawnWatch(const SpawnWatch &) = delete;
    SpawnWatch &operator=(const SpawnWatch &) = delete;

    /** The next open of `file` counts. */
    void watchFile(const QString &file) { add(file, IN_OPEN, {}, {}); }
    /** The first open of `name` in `folder` after `marker` appeared there counts: the
     *  same program ran before, for the import. */
    void watchFolder(const QString &folder, const QString &name, const QString &marker)
    {
        add(folder, IN_OPEN | IN_CREATE, QFile::encodeName(name), QFile::encodeName(marker));
    }
    /** Ends the watch and says when the open came, if it did. Every event the kernel
     *  queued before this call counts: a game that ends at once is often over before
     *  the thread, woken by its open, got a turn on a busy machine. */
    std::optional<Clock::time_point> finish()
    {
        stop();
        return m_spawned;
    }

private:
    void add(const QString &path, uint32_t mask, const QByteArray &name, const QByteArray &marker)
    {
        {
            std::lock_guard locker(m_mutex);
            m_name = name;
            m_marker = marker;
        }
        if (::inotify_add_watch(m_inotify, QFile::encodeName(path).constData(), mask) < 0)
            throw Failure{u"cannot watch "_s + path};
    }

    void stop()
    {
        if (!m_thread.joinable())
            return;
        const quint64 one = 1;
        if (::write(m_wake, &one, sizeof one) != sizeof one)
            std::abort(); // the thread would never end
        m_thread.join();
    }

    void run()
    {
        for (;;) {
            pollfd fds[2] = {{m_inotify, POLLIN, 0}, {m_wake, POLLIN, 0}};
            if (::poll(fds, 2, -1) < 0 && errno != EINTR)
                return;
            // The last events may have come with the wake: they are read first, and
            // stamped as any other, at the thread's first turn after them.
            take();
            if (fds[1].revents)
                return;
        }
    }

    // Reads what the kernel has queued, up to the first open that counts.
    void take()
    {
        alignas(inotify_event) char buffer[16384];
        for (;;) {
            const ssize_t n = ::read(m_inotify, buffer, sizeof buffer);
            if (n <= 0)
                return;
            const auto now = Clock::now();
            std::lock_guard locker(m_mutex);
            for (ssize_t at = 0; at < n && !m_spawned;) {
                const auto *event = reinterpret_cast<const inotify_event *>(buffer + at);
                at += ssize_t(sizeof(inotify_event) + event->len);
                const QByteArray name = event->len ? QByteArray(event->name) : QByteArray();
                if (!m_marker.isEmpty()) {
                    if ((event->mask & IN_CREATE) && name == m_marker)
                        m_marker.clear();
                    continue;
                }
                if ((event->mask & IN_OPEN) && name == m_name)
                    m_spawned = now;
            }
        }
    }

    int m_inotify;
    int m_wake;
    std::thread m_thread;
    std::mutex m_mutex; // guards everything below while the thread runs
    QByteArray m_name;
    QByteArray m_marker;
    std::optional<Clock::time_point> m_spawned;
};

// vantro-testserver serving a folder, for as long as this lives.
class ServerProcess
{
public:
    explicit ServerProcess(const QString &root)
    {
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.start(QStringLiteral(VANTRO_TESTSERVER), {u"--root"_s, root});
        while (!m_process.canReadLine() && m_process.waitForReadyRead(10000)) {
        }
        const QByteArray line = m_process.readLine().trimmed();
        if (!line.startsWith("port: "))
            throw Failure{u"the test server did not start: "_s + m_process.errorString()};
        m_base = u"http://127.0.0.1:"_s + QString::fromLatin1(line.mid(6));
    }
    ~ServerProcess()
    {
        m_process.terminate();
        if (!m_process.waitForFinished(5000))
            m_process.kill();
        m_process.waitForFinished(5000);
    }
    QString url(const QString &path) const { return m_base + path; }

private:
    QProcess m_process;
    QString m_base;
};

// Builds the game and engine zips with PlayWorld and lays them out under `www` as
// the server's folder, with the checksum list beside the engine.
void buildWorld(const QString &work, const QString &www)
{
    PlayWorld world;
    world.gamePadding = gameBytes;
    world.enginePadding = engineBytes;
    {
        TestHttpServer builder;
        world.serve(builder, work);
    }
    const QString engineZipPath = work + u'/' + engineZip;
    const QString digest = TestEnv::toolOutput(u"sha512sum"_s, {engineZipPath}).section(u' ', 0, 0);
    if (digest.size() != 128)
        throw Failure{u"sha512sum gave no digest"_s};
    auto place = [](const QString &from, const QString &to) {
        QDir().mkpath(QFileInfo(to).path());
        if (!QFile::rename(from, to))
            throw Failure{u"cannot move "_s + from};
    };
    place(work + u"/game.zip"_s, www + QString::fromLatin1(PlayWorld::gamePath));
    place(engineZipPath, www + QString::fromLatin1(PlayWorld::enginePath));
    TestEnv::writeFile(www + u"/releases/4.3-stable/SHA512-SUMS.txt"_s,
                       (digest + u"  "_s + engineZip + u'\n').toUtf8());
    QDir(work + u"/game-src"_s).removeRecursively();
    QDir(work + u"/engine-src"_s).removeRecursively();
}

// Runs the event loop, as the window does, until the model's pipeline has ended.
void waitForPipeline(AppModel &model)
{
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (!model.isWorking())
            loop.quit();
    });
    poll.start(10);
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    if (model.isWorking())
        loop.exec();
    if (model.isWorking()) {
        model.shutDown();
        throw Failure{u"the Play did not end in time; state: "_s + model.stateTitle()};
    }
}

QString lastLines(const AppModel &model)
{
    const QStringList lines = model.log()->lines();
    return lines.mid(std::max<qsizetype>(0, lines.size() - 8)).join(u"\n  "_s);
}

struct FirstPlay
{
    double seconds = 0;
    std::vector<double> phasesMs; // as phaseNames
    double rssGrowthMb = 0;
    double idleRssMb = 0;
    bool rssExact = false;
};

// A first Play by the model in the current (fresh) environment.
FirstPlay launcherFirstPlay(const AppModel::Config &config)
{
    SpawnWatch watch;
    AppModel model(config);
    std::vector<std::pair<AppState, Clock::time_point>> states;
    QObject::connect(&model, &AppModel::stateChanged, &model, [&] {
        states.emplace_back(model.state(), Clock::now());
        // Nothing else opens the engine between this state and the game's start.
        if (model.state() == AppState::starting() && model.info()) {
            if (const auto exe =
                    EngineManager::executable(model.layout(), EngineManager::spec(*model.info())))
                watch.watchFile(*exe);
        }
    });

    RssGrowth rss;
    const auto begin = Clock::now();
    model.play();
    waitForPipeline(model);
    FirstPlay run;
    run.rssGrowthMb = rss.stopMb();
    run.idleRssMb = rss.baseKb() / 1024.0;
    run.rssExact = rss.exact();

    const auto spawned = watch.finish();
    // Downloading the game, unpacking it, the checksum list, the engine, checking it,
    // unpacking it, the import, starting.
    if (!spawned || states.size() < 8 || states[7].first != AppState::starting())
        throw Failure{u"the launcher's first Play did not start the game; state: "_s +
                      model.stateTitle() + u"\n  "_s + lastLines(model)};
    const std::vector<Clock::time_point> ends{states[1].second, states[2].second, states[4].second,
                                              states[5].second, states[6].second, states[7].second,
                                              *spawned};
    auto from = begin;
    for (const auto end : ends) {
        run.phasesMs.push_back(ms(end - from));
        from = end;
    }
    run.seconds = ms(*spawned - begin) / 1000;
    return run;
}

// The same work with the system's tools. The marks are the shell's own clock
// ($EPOCHREALTIME, no process) at the end of each phase but the last.
const char *const shellPipeline = R"(set -euo pipefail
game_url=$1 sums_url=$2 engine_url=$3 zip=$4 program=$5
marks=
mark() { marks+=" $EPOCHREALTIME"; }
curl -sSf -o game.zip "$game_url"
mark
mkdir game
bsdtar -x -f game.zip -C game
mark
curl -sSf -o SHA512-SUMS.txt "$sums_url"
curl -sSf -o "$zip" "$engine_url"
mark
sha512sum -c --status SHA512-SUMS.txt
mark
bsdtar -x -f "$zip" -C engine
mark
for found in game/*/project.godot; do project=$PWD/${found%/project.godot}; done
engine/"$program" --headless --import --path "$project" --quit >/dev/null
mark
echo "marks:$marks" >&2
: > engine/.launching
exec engine/"$program" --path "$project" --windowed
)";

FirstPlay shellFirstPlay(const ServerProcess &server, const QString &work)
{
    const QString engineDir = work + u"/engine"_s;
    QDir().mkpath(engineDir);
    SpawnWatch watch;
    watch.watchFolder(engineDir, engineProgram, u".launching"_s);

    QProcess shell;
    shell.setWorkingDirectory(work);
    const QString sums = u"/releases/4.3-stable/SHA512-SUMS.txt"_s;
    const QStringList arguments{
        u"-c"_s,          QString::fromLatin1(shellPipeline),
        u"bash"_s,        server.url(QString::fromLatin1(PlayWorld::gamePath)),
        server.url(sums), server.url(QString::fromLatin1(PlayWorld::enginePath)),
        engineZip,        engineProgram};
    const qint64 beginReal = realtimeNs();
    const auto begin = Clock::now();
    shell.start(u"/bin/bash"_s, arguments);
    if (!shell.waitForFinished(timeoutMs) || shell.exitStatus() != QProcess::NormalExit ||
        shell.exitCode() != 0)
        throw Failure{u"the shell pipeline failed (exit code %1): "_s.arg(shell.exitCode()) +
                      QString::fromLocal8Bit(shell.readAllStandardError())};
    const auto spawned = watch.finish();
    if (!spawned)
        throw Failure{u"the shell pipeline's game start was not seen"_s};

    FirstPlay run;
    run.seconds = ms(*spawned - begin) / 1000;
    const QString errors = QString::fromLocal8Bit(shell.readAllStandardError());
    const qsizetype at = errors.indexOf(u"marks:"_s);
    const QStringList marks =
        at < 0 ? QStringList()
               : errors.mid(at + 6).section(u'\n', 0, 0).split(u' ', Qt::SkipEmptyParts);
    if (marks.size() != phaseNames.size() - 1)
        throw Failure{u"the shell pipeline gave no marks: "_s + errors};
    double from = 0;
    for (const QString &mark : marks) {
        const double at = (mark.toDouble() * 1e9 - double(beginReal)) / 1e6;
        run.phasesMs.push_back(at - from);
        from = at;
    }
    run.phasesMs.push_back(run.seconds * 1000 - from);
    return run;
}

// A launcher's first Play runs in a fresh process of its own (this program, started
// with --first-play), as a real first Play does: in this one, each round would start
// from a heap that the rounds before it had grown, and its growth would look smaller.
const char *const firstPlayOption = "--first-play";

QByteArray describe(const FirstPlay &run)
{
    QByteArrayList fields{QByteArray::number(run.seconds, 'g', 10),
                          QByteArray::number(run.rssGrowthMb, 'g', 10),
                          QByteArray::number(run.idleRssMb, 'g', 10), run.rssExact ? "1" : "0"};
    for (const double phase : run.phasesMs)
        fields.append(QByteArray::number(phase, 'g', 10));
    return "first play: " + fields.join(' ') + '\n';
}

FirstPlay launcherFirstPlayAlone(const AppModel::Config &config)
{
    QProcess child;
    child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    child.start(
        QCoreApplication::applicationFilePath(),
        {QString::fromLatin1(firstPlayOption), config.engineEndpoint, config.gameArchiveUrl});
    if (!child.waitForFinished(timeoutMs) || child.exitStatus() != QProcess::NormalExit ||
        child.exitCode() != 0)
        throw Failure{u"the launcher's first Play failed (exit code %1)"_s.arg(child.exitCode())};
    const QByteArray out = child.readAllStandardOutput();
    const qsizetype at = out.indexOf("first play: ");
    const QByteArrayList fields = at < 0 ? QByteArrayList() : out.mid(at + 12).trimmed().split(' ');
    if (fields.size() != 4 + phaseNames.size())
        throw Failure{u"the launcher's first Play said: "_s + QString::fromLocal8Bit(out)};
    FirstPlay run;
    run.seconds = fields[0].toDouble();
    run.rssGrowthMb = fields[1].toDouble();
    run.idleRssMb = fields[2].toDouble();
    run.rssExact = fields[3] == "1";
    for (qsizetype i = 4; i < fields.size(); ++i)
        run.phasesMs.push_back(fields[i].toDouble());
    return run;
}

QString phaseLine(const std::vector<FirstPlay> &runs)
{
    QStringList parts;
    for (qsizetype i = 0; i < phaseNames.size(); ++i) {
        const Samples phase =
            samplesOf(runs, [i](const FirstPlay &run) { return run.phasesMs.at(size_t(i)); });
        parts.append(phaseNames.at(i) + u' ' + QString::number(phase.median(), 'f', 1));
    }
    return parts.join(u" \u00b7 "_s);
}

// Scripts, scenes and images in 100 folders; the images get their sidecars from the
// engine's import afterwards, as a real project's do.
void addProjectFiles(const QString &root)
{
    const char *const kinds[] = {".gd",   ".gd",   ".gd",  ".gd",  ".tscn",
                                 ".tscn", ".tscn", ".png", ".png", ".png"};
    for (int i = 0; i < warmFiles; ++i) {
        const QString folder = root + u"/levels/level_%1"_s.arg(i / 100, 2, 10, QChar(u'0'));
        const QString path = folder + u"/part_%1"_s.arg(i % 100) + QLatin1String(kinds[i % 10]);
        TestEnv::writeFile(path, "extends Node\n");
    }
}

// A launcher started anew on an installed, imported project presses Play.
struct WarmPlays
{
    std::vector<double> totalMs;
    std::vector<double> toStartingMs; // until the model says it starts the game
};

WarmPlays warmPlays(const AppModel::Config &config)
{
    {
        AppModel model(config);
        model.play();
        waitForPipeline(model);
    }
    const QString root = config.layout.game() + u"/Zorbit-master"_s;
    if (!QFileInfo::exists(root + u"/project.godot"_s))
        throw Failure{u"the warm install has no project"_s};
    addProjectFiles(root);

    AppModel probe(config);
    if (!probe.info())
        throw Failure{u"the warm install's project cannot be read"_s};
    const auto exe = EngineManager::executable(probe.layout(), EngineManager::spec(*probe.info()));
    if (!exe)
        throw Failure{u"the warm install has no engine"_s};
    QProcess import;
    import.setProcessChannelMode(QProcess::MergedChannels);
    import.start(*exe, {u"--headless"_s, u"--import"_s, u"--path"_s, root, u"--quit"_s});
    // A line for each of thousands of images: on a busy machine the whole import takes
    // more than any fixed limit, so only an engine that stops printing is stuck.
    QByteArray output;
    while (import.waitForReadyRead(stallMs)) {
        output += import.readAll();
        output = output.right(2000);
    }
    if (import.state() != QProcess::NotRunning && !import.waitForFinished(stallMs)) {
        import.kill();
        import.waitForFinished();
        throw Failure{u"the import of the big project printed nothing for a minute"_s};
    }
    output += import.readAll();
    if (import.exitStatus() != QProcess::NormalExit || import.exitCode() != 0)
        throw Failure{u"the import of the big project failed: "_s +
                      QString::fromLocal8Bit(output.right(2000))};
    probe.refreshFromDisk();
    if (probe.state() != AppState::ready())
        throw Failure{u"the warm install is not ready: "_s + probe.stateTitle()};

    WarmPlays times;
    for (int round = 0; round < warmRounds; ++round) {
        AppModel model(config);
        SpawnWatch watch;
        watch.watchFile(*exe);
        std::vector<AppState> states;
        Clock::time_point starting;
        QObject::connect(&model, &AppModel::stateChanged, &model, [&] {
            if (states.empty())
                starting = Clock::now();
            states.push_back(model.state());
        });
        const auto begin = Clock::now();
        model.play();
        waitForPipeline(model);
        const auto spawned = watch.finish();
        if (!spawned || states.empty() || states.front() != AppState::starting())
            throw Failure{u"a warm Play did not go straight to the game; state: "_s +
                          model.stateTitle() + u"\n  "_s + lastLines(model)};
        times.totalMs.push_back(ms(*spawned - begin));
        times.toStartingMs.push_back(ms(starting - begin));
    }
    return times;
}

AppModel::Config benchConfig(const QString &engineEndpoint, const QString &gameArchiveUrl)
{
    AppModel::Config config;
    config.engineEndpoint = engineEndpoint;
    config.gameArchiveUrl = gameArchiveUrl;
    // Only the time after the game's start: the bench need not wait for it.
    config.settleDelay = std::chrono::milliseconds(20);
    config.stopGrace = std::chrono::milliseconds(500);
    return config;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    // The fake engine's game ends at once, with success.
    qunsetenv("FAKE_RUN_SECONDS");
    qunsetenv("FAKE_GAME_EXIT");
    qunsetenv("FAKE_EXIT");
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() == 4 && arguments[1] == QLatin1String(firstPlayOption)) {
        try {
            const FirstPlay run = launcherFirstPlay(benchConfig(arguments[2], arguments[3]));
            std::fputs(describe(run).constData(), stdout);
            return 0;
        } catch (const Failure &failure) {
            std::fprintf(stderr, "bench_play: %s\n", qPrintable(failure.what));
        } catch (const std::exception &error) {
            std::fprintf(stderr, "bench_play: %s\n", qPrintable(describeError(error)));
        }
        return 1;
    }

    const Figure launcherS{"play_first_launcher_s"}, shellS{"play_first_shell_s"},
        vsShellFigure{"play_first_vs_shell", "≤ 0.40"},
        launcherPhases{"play_first_launcher_phases_ms"}, shellPhases{"play_first_shell_phases_ms"},
        checksumFigure{"play_first_checksum_ms", "< 50"},
        rssGrowth{"play_first_rss_growth_mb", "< 80"}, warmMs{"play_warm_ms", "< 100"},
        warmToStarting{"play_warm_to_starting_ms"};
    Report report("bench_play", {launcherS, shellS, vsShellFigure, launcherPhases, shellPhases,
                                 checksumFigure, rssGrowth, warmMs, warmToStarting});
    report.part(report.all(), [&] {
        QTemporaryDir work;
        if (!work.isValid())
            throw Failure{u"no temporary folder"_s};
        const QString www = work.filePath(u"www"_s);
        buildWorld(work.path(), www);
        ServerProcess server(www);
        const AppModel::Config config = benchConfig(
            server.url(u"/releases/"_s), server.url(QString::fromLatin1(PlayWorld::gamePath)));

        report.part(
            {launcherS, shellS, vsShellFigure, launcherPhases, shellPhases, checksumFigure,
             rssGrowth},
            [&] {
                auto launcher = [&] {
                    TestEnv env; // the child's, through the environment
                    return launcherFirstPlayAlone(config);
                };
                auto shell = [&] {
                    TestEnv env;
                    return shellFirstPlay(server, env.root());
                };
                const auto [launcherRuns, shellRuns] =
                    interleavedRounds(firstRounds, 0, launcher, shell);
                const Samples launcherSeconds = samplesOf(launcherRuns, &FirstPlay::seconds);
                const Samples shellSeconds = samplesOf(shellRuns, &FirstPlay::seconds);
                const Samples vsShell = ratios(launcherSeconds, shellSeconds);
                report.print(launcherS, fixed(launcherSeconds.median(), 2),
                             launcherSeconds.rounds(2));
                report.print(shellS, fixed(shellSeconds.median(), 2), shellSeconds.rounds(2));
                report.print(vsShellFigure, fixed(vsShell.median(), 2), vsShell.rounds(2));
                report.print(launcherPhases, phaseLine(launcherRuns));
                report.print(shellPhases, phaseLine(shellRuns));
                // What the player waits for after the engine's last byte: the
                // digest's end.
                const auto checksumAt = size_t(phaseNames.indexOf(u"checksum"_s));
                const Samples checksum =
                    samplesOf(launcherRuns, [checksumAt](const FirstPlay &run) {
                        return run.phasesMs.at(checksumAt);
                    });
                report.print(checksumFigure, fixed(checksum.median(), 1), checksum.rounds(1));
                report.print(
                    rssGrowth, fixed(samplesOf(launcherRuns, &FirstPlay::rssGrowthMb).median(), 1),
                    u"idle "_s + fixed(samplesOf(launcherRuns, &FirstPlay::idleRssMb).median(), 1) +
                        u" MB, "_s +
                        (launcherRuns.front().rssExact ? u"exact peak"_s : u"sampled every ms"_s));
            });

        report.part({warmMs, warmToStarting}, [&] {
            TestEnv env;
            AppModel::Config warmConfig = config;
            warmConfig.layout = DataLayout::fromEnvironment(); // this environment's
            const WarmPlays warm = warmPlays(warmConfig);
            const Samples total(warm.totalMs);
            report.print(warmMs, fixed(total.median(), 1),
                         total.rounds(1) + u"; %1 project files"_s.arg(warmFiles));
            report.print(warmToStarting, fixed(Samples(warm.toStartingMs).median(), 1),
                         u"median"_s);
        });
    });
    return report.exitCode();
}
