// Play from the first click to the game's end, the commands beside it and a launcher
// killed half-way, against the loopback server, the real bsdtar and a fake engine.
#include "app/appmodel.h"
#include "app/modelpreview.h"
#include "app/pipeline.h"
#include "coro.h"
#include "playworld.h"
#include "testenv.h"
#include "testhttpserver.h"

#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

#include <csignal>

using namespace Qt::StringLiterals;

namespace {
bool alive(pid_t pid)
{
    const QByteArray stat = TestEnv::readFile(u"/proc/%1/stat"_s.arg(pid));
    return !stat.isEmpty() && stat.mid(stat.lastIndexOf(')') + 2, 1) != "Z";
}

// Runs the play host until `marker` starts a line of its output (empty: to its end),
// and kills it `delayMs` later. The lines it printed.
QStringList runHost(const AppModel::Config &config, const QString &marker, int delayMs)
{
    QProcess host;
    host.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    host.start(QStringLiteral(VANTRO_PLAYHOST), {config.engineEndpoint, config.gameArchiveUrl});
    QStringList lines;
    while (host.waitForReadyRead(60000) || host.canReadLine()) {
        while (host.canReadLine()) {
            lines.append(QString::fromUtf8(host.readLine()).chopped(1));
            if (!marker.isEmpty() && lines.last().startsWith(marker)) {
                QTest::qSleep(delayMs);
                host.kill();
                host.waitForFinished(10000);
                return lines;
            }
        }
    }
    return lines;
}

// A first Play's world on loopback, and a model that records its states.
struct Fixture
{
    TestEnv env;
    TestHttpServer server;
    AppModel::Config config;
    // Before the model: a model that goes while still working tells of its last states.
    QList<AppState> states;
    QList<qint64> stateMs; // when each came, on `clock`
    QElapsedTimer clock;
    QStringList progress; // each text, and " = " the fraction beside it
    std::unique_ptr<AppModel> model;

    explicit Fixture(const PlayWorld &world = {}, bool shortDelays = true)
    {
        config = world.serve(server, env.root());
        if (shortDelays) {
            config.promotionDelay = std::chrono::milliseconds(400);
            config.settleDelay = std::chrono::milliseconds(50);
            config.stopGrace = std::chrono::milliseconds(500);
        }
        model = std::make_unique<AppModel>(config);
        AppModel *m = model.get();
        clock.start();
        QObject::connect(m, &AppModel::stateChanged, m, [this, m] {
            states.append(m->state());
            stateMs.append(clock.elapsed());
        });
        QObject::connect(m, &AppModel::progressTextChanged, m, [this, m] {
            progress << m->progressText() + u" = "_s + QString::number(m->progress().value_or(-1));
        });
    }
    int hits(const char *path) const { return server.hits(QString::fromLatin1(path)); }
    int requests() const
    {
        return hits(PlayWorld::gamePath) + hits(PlayWorld::enginePath) +
               server.hits(u"/releases/4.3-stable/SHA512-SUMS.txt"_s);
    }
    // Plays until the pipeline has ended; the game's run length and exit come from the
    // fake engine's environment.
    void playToTheEnd()
    {
        model->play();
        QVERIFY(model->isWorking());
        QTRY_VERIFY_WITH_TIMEOUT(!model->isWorking(), 30000);
    }
    QStringList log() const { return model->log()->lines(); }
};
} // namespace

class TestPipeline : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // A fullscreen game takes the screen's own size.
    void launchArguments()
    {
        const QString root = u"/g r"_s;
        for (const auto &[fullscreen, resolution, tail] :
             {std::tuple(false, u"Default"_s, u"--windowed"_s),
              {false, u"1600x900"_s, u"--windowed --resolution 1600x900"_s},
              {true, u"1280x720"_s, u"--fullscreen"_s}})
            QCOMPARE(Pipeline::launchArguments(root, fullscreen, resolution),
                     QStringList({u"--path"_s, root}) + tail.split(u' '));
    }

    // Only an end the player did not ask for, before the threshold or with an error, is
    // reported: its first sentence in whole seconds, then the log's last 30 lines.
    void judgesTheEnd()
    {
        QStringList log;
        for (int i = 1; i <= 100; ++i)
            log.append(u"line "_s + QString::number(i));
        const std::tuple<double, int, bool, QString> cases[] = {
            {1.7, 1, false, u"The game closed after 1 second (exit code 1)."_s},
            {9.999, 0, false, u"The game closed after 9 seconds (exit code 0)."_s},
            {10.0, 0, false, QString()},
            {40.0, 11, false, u"The game closed after 40 seconds (exit code 11)."_s},
            {4.0, 15, true, QString()},
        };
        for (const auto &[elapsed, exitCode, stopped, report] : cases) {
            const Pipeline::GameEnd end = Pipeline::judgeGameEnd(elapsed, exitCode, stopped);
            QCOMPARE(end == Pipeline::GameEnd::Stopped, stopped);
            QCOMPARE(end == Pipeline::GameEnd::Unexpected, !report.isEmpty());
            if (report.isEmpty())
                continue;
            QCOMPARE(Pipeline::failureReportText(elapsed, exitCode, log),
                     report + u" Last lines of the log:\n\n"_s + log.mid(70).join(u'\n'));
            QCOMPARE(Pipeline::failureReportText(elapsed, exitCode, {u"only"_s}),
                     report + u" Last lines of the log:\n\nonly"_s);
        }
    }

    // The acceptance story, with the real 10-second delays.
    void firstStartWithRealDelays()
    {
        Fixture f({}, false);
        ScopedEnv run(u"FAKE_RUN_SECONDS=10.5"_s);
        f.model->play();
        QTRY_VERIFY_WITH_TIMEOUT(!f.model->isWorking(), 40000);
        QCOMPARE(
            f.states,
            (QList<AppState>{
                AppState::downloading(u"the game"_s), AppState::settingUp(u"unpacking the game"_s),
                AppState::downloading(u"checksum for Godot 4.3-stable"_s),
                AppState::downloading(u"Godot 4.3-stable"_s),
                AppState::settingUp(u"checking the engine download"_s),
                AppState::settingUp(u"unpacking the engine"_s),
                AppState::settingUp(u"First-time setup, this can take a minute or more"_s),
                AppState::starting(), AppState::playing(), AppState::ready()}));
        // Playing once the game has run the whole delay, timed at the model's own state
        // changes: a wait of the test's would itself run late on a busy machine.
        QVERIFY(f.stateMs[8] - f.stateMs[7] >= 10000);
        QVERIFY(!f.model->failureReport() && !f.model->progress());
        // Each download shows its bytes of the total and the speed, up to the whole.
        const QRegularExpression whole(u"^(.+) of \\1 \u00b7 (Zero|[\\d.]+)\u00a0[KMG]?B/s = 1$"_s);
        QVERIFY2(f.progress.filter(whole).size() == 2, qPrintable(f.progress.join(u'|')));
        QVERIFY(f.log().contains(u"Downloading "_s + f.config.gameArchiveUrl));
        QVERIFY2(f.log().contains(u"Starting: Godot_v4.3-stable_linux.x86_64 --path "_s +
                                  f.env.base() + u"/Game/Zorbit-master --windowed"_s),
                 qPrintable(f.log().join(u'\n')));
    }

    void playsToAnEnd_data()
    {
        QTest::addColumn<bool>("dotnet");    // the game needs Godot's .NET build
        QTest::addColumn<QString>("fakery"); // the fake engine's settings
        QTest::addColumn<QString>("needs");  // what the state at the end asks for
        QTest::addColumn<QString>("report"); // its first line; empty: none

        // The threshold is the shortened promotion delay, 0.4 s.
        QTest::newRow("dies early")
            << false << u"FAKE_GAME_EXIT=1"_s << u"the game closed unexpectedly"_s
            << u"The game closed after 0 seconds (exit code 1). Last lines of the log:"_s;
        QTest::newRow("game that cannot be started")
            << false << u"FAKE_UNRUNNABLE=1"_s
            << u"The game could not be started: Permission denied."_s << QString();
        QTest::newRow(".NET project")
            << true << QString()
            << u"This game needs the C# (.NET) Godot build, which this app does not set up."_s
            << QString();
        QTest::newRow("engine that cannot import the game")
            << false << u"FAKE_CRASH=1"_s
            << u"Godot did not finish preparing the game's files (exit code 11). Open \"Show "
               u"log\" for details."_s
            << QString();
    }
    void playsToAnEnd()
    {
        QFETCH(bool, dotnet);
        QFETCH(QString, fakery);
        QFETCH(QString, needs);
        QFETCH(QString, report);

        PlayWorld world;
        if (dotnet)
            world.project = "config_version=5\nconfig/features=PackedStringArray(\"4.3\", \"C#\")";
        Fixture f(world);
        ScopedEnv fake(fakery);
        f.playToTheEnd();
        QCOMPARE(f.model->state(), AppState::needs(needs));
        QCOMPARE(f.model->failureReport().value_or(QString()).section(u'\n', 0, 0), report);
        // A step's failure is logged; the launch's own and the game's end are no step's.
        if (dotnet || fakery.contains(u"CRASH"_s))
            QTRY_COMPARE(f.log().last(), u"Problem: "_s + needs);
        QCOMPARE(f.env.tmpEntries(), QStringList{});
        if (report.isEmpty())
            return;
        QVERIFY(f.model->failureReport()->endsWith(f.log().last()));
        // After a game ended, a second Play fetches nothing and goes straight to the game.
        const int fetched = f.requests();
        f.states.clear();
        f.playToTheEnd();
        QCOMPARE(f.requests(), fetched);
        QCOMPARE(f.states.value(0), AppState::starting());
        QCOMPARE(f.model->state(), AppState::needs(needs));
    }

    void cancels_data()
    {
        QTest::addColumn<AppState>("at");    // the cancel comes as this state begins
        QTest::addColumn<bool>("reinstall"); // the game is imported, only the engine missing
        QTest::addColumn<QString>("absent"); // what the cancelled step would have made

        QTest::newRow("engine download")
            << AppState::downloading(u"Godot 4.3-stable"_s) << false << u"Engine"_s;
        QTest::newRow("game unpack")
            << AppState::settingUp(u"unpacking the game"_s) << false << u"Game"_s;
        QTest::newRow("import") << AppState::settingUp(
                                       u"First-time setup, this can take a minute or more"_s)
                                << false << u"imported.marker"_s;
        // With the game imported nothing after the engine's steps would stop the launch.
        QTest::newRow("engine check, game imported")
            << AppState::settingUp(u"checking the engine download"_s) << true << u"Engine"_s;
        QTest::newRow("engine unpack, game imported")
            << AppState::settingUp(u"unpacking the engine"_s) << true << u"Engine"_s;
    }
    void cancels()
    {
        QFETCH(AppState, at);
        QFETCH(bool, reinstall);
        QFETCH(QString, absent);

        Fixture f({.enginePadding = 3'000'000, .dripBytes = 256 * 1024, .dripDelayMs = 10});
        ScopedEnv run(u"FAKE_RUN_SECONDS=0.6"_s);
        if (reinstall) {
            f.playToTheEnd();
            QDir(f.env.base() + u"/Engine"_s).removeRecursively();
        }
        connect(f.model.get(), &AppModel::stateChanged, this, [&] {
            if (f.model->state() == at)
                f.model->cancel();
        });
        f.model->play();
        QTRY_VERIFY_WITH_TIMEOUT(!f.model->isWorking(), 20000);
        QCOMPARE(f.model->state(), AppState::notDownloaded());
        QTRY_COMPARE(f.log().last(), u"Cancelled."_s);
        QVERIFY(f.log().filter(u"Starting: "_s).isEmpty());
        QVERIFY(!TestEnv::entries(f.env.base()).contains(absent));
        QVERIFY(!f.model->progress());
        QCOMPARE(f.model->progressText(), QString());
        QCOMPARE(f.env.tmpEntries(), QStringList{});
        QVERIFY(!QFileInfo::exists(f.env.base() + u"/GameStaging"_s));
    }

    // Nothing a run started outlives it, however it ends: an unpacker that stops
    // answering (a disk that hangs), a game's helpers that ignore the terminate request,
    // one of them in a session of its own. And while it runs, nothing else starts and
    // nothing is deleted, from a second launcher neither.
    void endsEveryChild_data()
    {
        QTest::addColumn<bool>("playing"); // else in a stalled unpack
        QTest::addColumn<QString>("how");  // a command of the model's, or destroy
        QTest::newRow("stalled unpack, cancel") << false << u"cancel"_s;
        QTest::newRow("stalled unpack, model destroyed") << false << u"destroy"_s;
        QTest::newRow("stalled unpack, quit") << false << u"quit"_s;
        QTest::newRow("playing, Stop") << true << u"stopGame"_s;
        QTest::newRow("playing, quit") << true << u"quit"_s;
    }
    void endsEveryChild()
    {
        QFETCH(bool, playing);
        QFETCH(QString, how);
        Fixture f;
        const QString pidFile = f.env.root() + u"/pids"_s;
        ScopedEnv fake(u"FAKE_RUN_SECONDS=60 | FAKE_HELPERS="_s + pidFile);
        f.config.stopGrace = std::chrono::milliseconds(1000);
        if (!playing) {
            f.config.unpacker = f.env.root() + u"/stalling-bsdtar"_s;
            TestEnv::writeFile(f.config.unpacker,
                               "#!/bin/sh\necho $$ >> \"$FAKE_HELPERS\"\nkill -STOP $$\n"
                               "exec /usr/bin/bsdtar \"$@\"\n",
                               true);
        }
        f.model = std::make_unique<AppModel>(f.config);
        f.model->play();
        QTRY_COMPARE_WITH_TIMEOUT(TestEnv::readFile(pidFile).count('\n'), playing ? 2 : 1, 20000);
        const QList<QByteArray> pids = TestEnv::readFile(pidFile).trimmed().split('\n');
        const auto reap = qScopeGuard([&] {
            for (const QByteArray &pid : pids)
                ::kill(pid.toInt(), SIGKILL);
        });
        if (!playing)
            QTRY_VERIFY(TestEnv::readFile(u"/proc/"_s + QString::fromLatin1(pids[0]) + u"/stat"_s)
                            .contains(") T"));
        const AppState busy = f.model->state();
        AppModel second(f.config);
        for (const char *command : {"updateGame", "reinstall", "removeEverything", "play"}) {
            QMetaObject::invokeMethod(f.model.get(), command);
            QMetaObject::invokeMethod(&second, command);
        }
        QCOMPARE(second.state(),
                 AppState::needs(u"Another Vantro 3D is already using this computer's game "
                                 u"folder. Close it, then press Play again."_s));
        QCOMPARE(f.model->state(), busy);
        QCOMPARE(QFileInfo::exists(f.env.base() + u"/imported.marker"_s), playing);

        QElapsedTimer clock;
        clock.start();
        if (how == u"quit")
            f.model->shutDown();
        else if (how == u"destroy")
            f.model.reset();
        else
            QVERIFY(QMetaObject::invokeMethod(f.model.get(), qPrintable(how)));
        // Quitting blocks for the grace at most, nothing else blocks.
        QVERIFY(clock.elapsed() < (how == u"quit" ? 1300 : 200));
        if (f.model)
            QTRY_VERIFY_WITH_TIMEOUT(!f.model->isWorking(), 5000);
        for (const QByteArray &pid : pids)
            QTRY_VERIFY_WITH_TIMEOUT(!alive(pid.toInt()), 5000);
        // Killed at the grace, also when quitting, where no later turn of the event loop
        // may do it.
        QVERIFY2(clock.elapsed() < 1600, qPrintable(QString::number(clock.elapsed())));
        if (how == u"cancel" || how == u"stopGame") {
            QCOMPARE(f.model->state(), playing ? AppState::ready() : AppState::notDownloaded());
            QVERIFY(!f.model->failureReport());
            QVERIFY(!QFileInfo::exists(f.env.base() + u"/GameStaging"_s));
        }
        // The data folder is free for the next launcher once this one is gone.
        QCOMPARE(DataFolder(DataLayout::fromEnvironment()).lock(), !f.model || how == u"quit");
    }

    void keepsSavesAndWhatWasInstalled_data()
    {
        QTest::addColumn<QString>("command"); // the model's
        QTest::addColumn<QString>("broken");  // the archive that cannot be had
        QTest::addColumn<QString>("fetched"); // again
        QTest::addColumn<QString>("kept");    // log lines

        const QString game = u"The update could not be downloaded; your installed game was kept."_s;
        const QString engine =
            u"The engine could not be downloaded again; your installed engine was kept."_s;
        QTest::newRow("update") << u"updateGame"_s << QString() << u"game"_s << QString();
        QTest::newRow("reinstall") << u"reinstall"_s << QString() << u"game engine"_s << QString();
        QTest::newRow("update offline") << u"updateGame"_s << u"game"_s << u"game"_s << game;
        QTest::newRow("reinstall, no game")
            << u"reinstall"_s << u"game"_s << u"game"_s << game + u" | "_s + engine;
        QTest::newRow("reinstall, no engine")
            << u"reinstall"_s << u"engine"_s << u"game engine"_s << engine;
        QTest::newRow("play") << u"play"_s << QString() << QString() << QString();
        QTest::newRow("remove everything")
            << u"removeEverything"_s << QString() << QString() << QString();
    }
    void keepsSavesAndWhatWasInstalled()
    {
        QFETCH(QString, command);
        QFETCH(QString, broken);
        QFETCH(QString, fetched);
        QFETCH(QString, kept);

        Fixture f;
        ScopedEnv run(u"FAKE_RUN_SECONDS=0.6"_s);
        f.playToTheEnd();
        QCOMPARE(f.model->state(), AppState::ready());
        const QString save = f.model->savesURL() + u"/slot1.save"_s;
        TestEnv::writeFile(save, "lap 1");
        const int games = f.hits(PlayWorld::gamePath), engines = f.hits(PlayWorld::enginePath);
        if (!broken.isEmpty())
            f.server.setRoute(QString::fromLatin1(broken == u"game" ? PlayWorld::gamePath
                                                                    : PlayWorld::enginePath),
                              {.status = 503});
        // From a failure too.
        ModelPreview(*f.model).failureReport(u"old report"_s).state(AppState::needs(u"x"_s));
        QVERIFY(QMetaObject::invokeMethod(f.model.get(), qPrintable(command)));
        QVERIFY(!f.model->failureReport()); // at once, not when the work ends
        QTRY_VERIFY_WITH_TIMEOUT(!f.model->isWorking(), 20000);
        QCOMPARE(f.hits(PlayWorld::gamePath) - games, int(fetched.contains(u"game"_s)));
        QCOMPARE(f.hits(PlayWorld::enginePath) - engines, int(fetched.contains(u"engine"_s)));
        QCOMPARE(TestEnv::readFile(save), QByteArray("lap 1"));
        // The log takes its lines on a later turn of the event loop than the run's end.
        for (const QString &line : items(kept))
            QTRY_VERIFY2(f.log().contains(line), qPrintable(f.log().join(u'\n')));

        if (command == u"removeEverything") {
            QCOMPARE(f.model->state(), AppState::notDownloaded());
            QVERIFY(!f.model->info() && !f.model->failureReport());
            // Only the lock stays, so that a second launcher still cannot share the folder.
            QCOMPARE(TestEnv::entries(f.env.base()), QStringList{u".lock"_s});
            QCOMPARE(*runTask(f.model->installedSize()).value, qint64(0));
            AppModel second(f.config);
            second.play();
            QVERIFY(!second.isWorking());
            return;
        }
        QCOMPARE(f.model->state(), broken.isEmpty()
                                       ? AppState::ready()
                                       : AppState::needs(u"The server answered with error 503."_s));
        // Whatever could not be had, the next Play starts the game without fetching; it
        // imports only a fresh game that never met its engine, never a kept one.
        const int requests = f.requests();
        f.playToTheEnd();
        QCOMPARE(f.model->state(), AppState::ready());
        QCOMPARE(f.requests(), requests);
        QCOMPARE(f.log().contains(u"Import done."_s), broken == u"engine");
    }

    // A launcher killed at any moment of a first Play leaves a disk from which the next
    // start recovers by itself, and does not fetch again what was complete.
    void recoversFromAKill_data()
    {
        QTest::addColumn<QString>("marker");
        QTest::addColumn<int>("delayMs");

        QTest::newRow("game download") << u"state: Downloading: the game"_s << 30;
        QTest::newRow("game unpack") << u"state: Setting up: unpacking the game"_s << 8;
        QTest::newRow("game in place") << u"log: Game unpacked."_s << 0;
        QTest::newRow("engine download") << u"state: Downloading: Godot 4.3-stable"_s << 200;
        QTest::newRow("checksum") << u"state: Setting up: checking the engine download"_s << 5;
        QTest::newRow("engine unpack") << u"state: Setting up: unpacking the engine"_s << 60;
        QTest::newRow("import") << u"state: Setting up: First-time setup"_s << 0;
        QTest::newRow("import written") << u"log: Import done."_s << 0;
        QTest::newRow("playing") << u"state: Playing"_s << 0;
    }
    void recoversFromAKill()
    {
        QFETCH(QString, marker);
        QFETCH(int, delayMs);

        // Slow enough that a download is a moment worth interrupting.
        Fixture f({.gamePadding = 3'000'000,
                   .enginePadding = 30'000'000,
                   .dripBytes = 256 * 1024,
                   .dripDelayMs = 10});
        const ScopedEnv run(u"FAKE_RUN_SECONDS=0.5"_s);
        const QStringList before = runHost(f.config, marker, delayMs);
        QVERIFY2(before.last().startsWith(marker), qPrintable(before.join(u'\n')));

        // What a killed run leaves: never a half-installed game or engine, never a
        // marker for a game whose import it does not record.
        const QString base = f.env.base(), game = base + u"/Game/Zorbit-master"_s;
        const bool gameDone =
            TestEnv::readFile(game + u"/project.godot"_s) == PlayWorld().project &&
            QFileInfo::exists(game + u"/README.md"_s) && QFileInfo::exists(game + u"/icon.png"_s);
        QCOMPARE(QFileInfo::exists(base + u"/Game"_s), gameDone);
        const DataLayout layout = DataLayout::fromEnvironment();
        const EngineSpec godot4{u"4.3-stable"_s, u"Godot_v4.3-stable_linux.x86_64.zip"_s, 4};
        const bool engineDone = EngineManager::executable(layout, godot4).has_value();
        QCOMPARE(QFileInfo::exists(layout.engine(godot4.version)), engineDone);
        if (QFileInfo::exists(base + u"/imported.marker"_s))
            QVERIFY(gameDone && EngineManager::importIsComplete(game, 4));

        const int gameFetches = f.hits(PlayWorld::gamePath),
                  engineFetches = f.hits(PlayWorld::enginePath);
        QCOMPARE(runHost(f.config, QString(), 0).last(), u"done: Ready"_s);
        QCOMPARE(f.hits(PlayWorld::gamePath) == gameFetches, gameDone);
        QCOMPARE(f.hits(PlayWorld::enginePath) == engineFetches, engineDone);
        // Nothing of the dead run is left behind.
        QCOMPARE(TestEnv::entries(base),
                 (QStringList{u".lock"_s, u"Engine"_s, u"Game"_s, u"game.version"_s,
                              u"imported.marker"_s}));
        QCOMPARE(TestEnv::entries(base + u"/Engine"_s), QStringList{u"4.3-stable"_s});
        QCOMPARE(f.env.tmpEntries(), QStringList{});
    }
};

QTEST_GUILESS_MAIN(TestPipeline)
#include "tst_pipeline.moc"
