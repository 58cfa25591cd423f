#include "app/appmodel.h"
#include "app/modelpreview.h"
#include "app/pipeline.h"
#include "coro.h"
#include "playworld.h"
#include "testenv.h"
#include "testhttpserver.h"

#include <QDesktopServices>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QTest>

#include <csignal>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {
const QString game = u"Game/Zorbit-master"_s;

// The pid of this program's child running `name`, or 0.
pid_t childNamed(const QByteArray &name)
{
    QDirIterator procs(u"/proc"_s, QDir::Dirs | QDir::NoDotAndDotDot);
    while (procs.hasNext()) {
        const QString dir = procs.next();
        const QByteArray stat = TestEnv::readFile(dir + u"/stat"_s);
        const qsizetype close = stat.lastIndexOf(')');
        if (close > 0 && stat.mid(stat.indexOf('(') + 1, close - stat.indexOf('(') - 1) == name &&
            stat.mid(close + 4).split(' ').value(0).toInt() == ::getpid())
            return pid_t(procs.fileName().toInt());
    }
    return 0;
}

bool alive(pid_t pid)
{
    const QByteArray stat = TestEnv::readFile(u"/proc/%1/stat"_s.arg(pid));
    return !stat.isEmpty() && stat.mid(stat.lastIndexOf(')') + 2, 1) != "Z";
}

// A first Play's world on loopback, and a model that records its states.
struct Fixture
{
    TestEnv env;
    TestHttpServer server;
    AppModel::Config config;
    // Before the model: a model that goes while still working tells of its last states.
    QList<AppState> states;
    std::unique_ptr<AppModel> model;

    explicit Fixture(const PlayWorld &world = {}, bool shortDelays = true)
    {
        config = world.serve(server, env.root());
        if (shortDelays) {
            config.promotionDelay = std::chrono::milliseconds(400);
            config.settleDelay = std::chrono::milliseconds(50);
            config.stopGrace = std::chrono::milliseconds(500);
        }
        remake();
    }
    void remake()
    {
        model = std::make_unique<AppModel>(config);
        states.clear();
        AppModel *m = model.get();
        QObject::connect(m, &AppModel::stateChanged, m, [this, m] { states.append(m->state()); });
    }
    int requests() const
    {
        return server.hits(QString::fromLatin1(PlayWorld::gamePath)) +
               server.hits(QString::fromLatin1(PlayWorld::enginePath)) +
               server.hits(u"/releases/4.3-stable/SHA512-SUMS.txt"_s);
    }
    // Plays until the pipeline has ended; the game's run length and exit come from
    // the fake engine's environment.
    void playToTheEnd(int timeoutMs = 30000)
    {
        model->play();
        QVERIFY(model->isWorking());
        QTRY_VERIFY_WITH_TIMEOUT(!model->isWorking(), timeoutMs);
    }
    QStringList log() const { return model->log()->lines(); }
};
} // namespace

class TestPipeline : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void launchArguments_data();
    void launchArguments();
    void judgesTheEnd_data();
    void judgesTheEnd();
    void firstStartWithRealDelays();
    void gameEndings_data();
    void gameEndings();
    void cancels_data();
    void cancels();
    void stalledUnpackEndsEveryWay_data();
    void stalledUnpackEndsEveryWay();
    void stopWhilePlaying();
    void failuresEndInNeeds_data();
    void failuresEndInNeeds();
    void maintenance();
    void updateOfflineKeepsWhatWasInstalled_data();
    void updateOfflineKeepsWhatWasInstalled();
    void revealsFolders();
    void sizeEstimate_data();
    void sizeEstimate();
};

void TestPipeline::launchArguments_data()
{
    QTest::addColumn<bool>("fullscreen");
    QTest::addColumn<QString>("resolution");
    QTest::addColumn<QStringList>("arguments");

    QTest::newRow("windowed default")
        << false << u"Default"_s << QStringList{u"--path"_s, u"/g r"_s, u"--windowed"_s};
    QTest::newRow("windowed size")
        << false << u"1600x900"_s
        << QStringList{u"--path"_s, u"/g r"_s, u"--windowed"_s, u"--resolution"_s, u"1600x900"_s};
    QTest::newRow("fullscreen drops the size")
        << true << u"1280x720"_s << QStringList{u"--path"_s, u"/g r"_s, u"--fullscreen"_s};
}

void TestPipeline::launchArguments()
{
    QFETCH(bool, fullscreen);
    QFETCH(QString, resolution);
    QFETCH(QStringList, arguments);
    QCOMPARE(Pipeline::launchArguments(u"/g r"_s, fullscreen, resolution), arguments);
}

void TestPipeline::judgesTheEnd_data()
{
    QTest::addColumn<double>("elapsed");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<bool>("stopped");
    QTest::addColumn<int>("end"); // Pipeline::GameEnd
    QTest::addColumn<QString>("reportStart");

    const int normal = int(Pipeline::GameEnd::Normal),
              unexpected = int(Pipeline::GameEnd::Unexpected),
              stopped = int(Pipeline::GameEnd::Stopped);
    QTest::newRow("dies after 1.7 s")
        << 1.7 << 1 << false << unexpected << u"The game closed after 1 second (exit code 1)."_s;
    QTest::newRow("quits cleanly after 4 s")
        << 4.0 << 0 << false << unexpected << u"The game closed after 4 seconds (exit code 0)."_s;
    QTest::newRow("just under the threshold")
        << 9.999 << 0 << false << unexpected << u"The game closed after 9 seconds (exit code 0)."_s;
    QTest::newRow("normal end at the threshold") << 10.0 << 0 << false << normal << QString();
    QTest::newRow("crash after a long run")
        << 40.0 << 11 << false << unexpected
        << u"The game closed after 40 seconds (exit code 11)."_s;
    QTest::newRow("stopped by the player") << 40.0 << 15 << true << stopped << QString();
    QTest::newRow("under a second")
        << 0.4 << 0 << false << unexpected << u"The game closed after 0 seconds (exit code 0)."_s;
}

void TestPipeline::judgesTheEnd()
{
    QFETCH(double, elapsed);
    QFETCH(int, exitCode);
    QFETCH(bool, stopped);
    QFETCH(int, end);
    QFETCH(QString, reportStart);
    QCOMPARE(int(Pipeline::judgeGameEnd(elapsed, exitCode, stopped)), end);
    if (reportStart.isEmpty())
        return;
    QStringList log;
    for (int i = 1; i <= 100; ++i)
        log.append(u"line "_s + QString::number(i));
    QStringList tail = log.mid(70);
    QCOMPARE(Pipeline::failureReportText(elapsed, exitCode, log),
             reportStart + u" Last lines of the log:\n\n"_s + tail.join(u'\n'));
    QCOMPARE(Pipeline::failureReportText(elapsed, exitCode, {u"only"_s}),
             reportStart + u" Last lines of the log:\n\nonly"_s);
}

// The acceptance story, with the real 10-second delays.
void TestPipeline::firstStartWithRealDelays()
{
    Fixture f({}, false);
    ScopedEnv run("FAKE_RUN_SECONDS", "10.5");
    f.model->play();
    QTRY_COMPARE_WITH_TIMEOUT(f.model->state(), AppState::starting(), 20000);
    QTest::qWait(9000);
    QCOMPARE(f.model->state(), AppState::starting());
    QTRY_COMPARE_WITH_TIMEOUT(f.model->state(), AppState::playing(), 3000);
    QTRY_VERIFY_WITH_TIMEOUT(!f.model->isWorking(), 10000);
    QCOMPARE(f.states,
             (QList<AppState>{
                 AppState::downloading(u"the game"_s), AppState::settingUp(u"unpacking the game"_s),
                 AppState::downloading(u"checksum for Godot 4.3-stable"_s),
                 AppState::downloading(u"Godot 4.3-stable"_s),
                 AppState::settingUp(u"checking the engine download"_s),
                 AppState::settingUp(u"unpacking the engine"_s),
                 AppState::settingUp(u"First-time setup, this can take a minute or more"_s),
                 AppState::starting(), AppState::playing(), AppState::ready()}));
    QVERIFY(!f.model->failureReport());
    QVERIFY(!f.model->progress());
    QCOMPARE(f.model->progressText(), QString());
    const QStringList log = f.log();
    QVERIFY(log.contains(u"Game unpacked."_s));
    QVERIFY(log.contains(u"Checksum OK (SHA-512)."_s));
    const QString start = u"Starting: Godot_v4.3-stable_linux.x86_64 --path "_s + f.env.base() +
                          u"/"_s + game + u" --windowed"_s;
    QVERIFY2(log.contains(start), qPrintable(log.join(u'\n')));
    QCOMPARE(f.model->info()->name, u"Zorbit"_s);
    QCOMPARE(f.env.tmpEntries(), QStringList{});
}

void TestPipeline::gameEndings_data()
{
    QTest::addColumn<QByteArray>("runSeconds");
    QTest::addColumn<QByteArray>("exitCode");
    QTest::addColumn<AppState>("end");
    QTest::addColumn<QString>("report"); // its first line; empty: none

    // The threshold is the shortened promotion delay, 0.4 s.
    QTest::newRow("normal end") << QByteArray("0.8") << QByteArray("0") << AppState::ready()
                                << QString();
    QTest::newRow("dies early")
        << QByteArray("0") << QByteArray("1") << AppState::needs(u"the game closed unexpectedly"_s)
        << u"The game closed after 0 seconds (exit code 1). Last lines of the log:"_s;
    QTest::newRow("error after a long run")
        << QByteArray("1.2") << QByteArray("3")
        << AppState::needs(u"the game closed unexpectedly"_s)
        << u"The game closed after 1 second (exit code 3). Last lines of the log:"_s;
}

void TestPipeline::gameEndings()
{
    QFETCH(QByteArray, runSeconds);
    QFETCH(QByteArray, exitCode);
    QFETCH(AppState, end);
    QFETCH(QString, report);

    Fixture f;
    ScopedEnv run("FAKE_RUN_SECONDS", runSeconds), code("FAKE_GAME_EXIT", exitCode);
    f.playToTheEnd();
    QCOMPARE(f.model->state(), end);
    QCOMPARE(f.model->failureReport().value_or(QString()).section(u'\n', 0, 0), report);
    if (!report.isEmpty())
        QVERIFY(f.model->failureReport()->endsWith(f.log().last()));
    const int fetched = f.requests();

    // A second Play fetches nothing and goes straight to the game.
    f.states.clear();
    f.playToTheEnd();
    QCOMPARE(f.requests(), fetched);
    QCOMPARE(f.states.value(0), AppState::starting());
    QCOMPARE(f.model->state(), end);
}

void TestPipeline::cancels_data()
{
    QTest::addColumn<AppState>("at");    // the cancel comes as this state begins
    QTest::addColumn<bool>("reinstall"); // the game is imported, only the engine missing
    QTest::addColumn<AppState>("end");

    const AppState notDownloaded = AppState::notDownloaded();
    QTest::newRow("engine download")
        << AppState::downloading(u"Godot 4.3-stable"_s) << false << notDownloaded;
    QTest::newRow("game unpack") << AppState::settingUp(u"unpacking the game"_s) << false
                                 << notDownloaded;
    QTest::newRow("import") << AppState::settingUp(
                                   u"First-time setup, this can take a minute or more"_s)
                            << false << notDownloaded;
    // With the game imported nothing after the engine's steps would stop the launch.
    QTest::newRow("engine check, game imported")
        << AppState::settingUp(u"checking the engine download"_s) << true << notDownloaded;
    QTest::newRow("engine unpack, game imported")
        << AppState::settingUp(u"unpacking the engine"_s) << true << notDownloaded;
}

void TestPipeline::cancels()
{
    QFETCH(AppState, at);
    QFETCH(bool, reinstall);
    QFETCH(AppState, end);

    PlayWorld world;
    world.enginePadding = 3'000'000;
    Fixture f(world);
    ScopedEnv run("FAKE_RUN_SECONDS", "0.6");
    if (reinstall) {
        f.playToTheEnd();
        QCOMPARE(f.model->state(), AppState::ready());
        QDir(f.env.base() + u"/Engine"_s).removeRecursively();
    }
    TestHttpServer::Route drip =
        TestHttpServer::file(f.env.root() + u"/Godot_v4.3-stable_linux.x86_64.zip"_s);
    drip.dripBytesPerChunk = 200000;
    drip.dripDelayMs = 20;
    f.server.setRoute(QString::fromLatin1(PlayWorld::enginePath), drip);
    connect(f.model.get(), &AppModel::stateChanged, this, [&] {
        if (f.model->state() == at)
            f.model->cancel();
    });
    f.model->play();
    f.model->play(); // refused: still busy
    QTRY_VERIFY_WITH_TIMEOUT(!f.model->isWorking(), 20000);
    QCOMPARE(f.model->state(), end);
    QTRY_COMPARE(f.log().last(), u"Cancelled."_s);
    QVERIFY(!f.log().join(u'\n').contains(u"Starting: "_s));
    QVERIFY(!f.model->progress());
    QCOMPARE(f.model->progressText(), QString());
    QCOMPARE(f.env.tmpEntries(), QStringList{});
    QVERIFY(!QFileInfo::exists(f.env.base() + u"/GameStaging"_s));
}

// An unpacker that stops answering (a disk that hangs) holds nothing up: cancel,
// destroying the model and quitting all end it within the grace.
void TestPipeline::stalledUnpackEndsEveryWay_data()
{
    QTest::addColumn<QString>("how");
    QTest::newRow("cancel") << u"cancel"_s;
    QTest::newRow("model destroyed") << u"destroy"_s;
    QTest::newRow("quit") << u"quit"_s;
}

void TestPipeline::stalledUnpackEndsEveryWay()
{
    QFETCH(QString, how);
    PlayWorld world;
    world.gamePadding = 30'000'000;
    Fixture f(world);
    f.model->play();
    QTRY_COMPARE_WITH_TIMEOUT(f.model->state(), AppState::settingUp(u"unpacking the game"_s),
                              20000);
    pid_t unpacker = 0;
    QTRY_VERIFY((unpacker = childNamed("bsdtar")) != 0);
    ::kill(unpacker, SIGSTOP);
    const auto release = qScopeGuard([unpacker] { ::kill(unpacker, SIGKILL); });

    QElapsedTimer clock;
    clock.start();
    if (how == u"cancel") {
        f.model->cancel();
        QTRY_VERIFY_WITH_TIMEOUT(!f.model->isWorking(), 5000);
        QCOMPARE(f.model->state(), AppState::notDownloaded());
    } else if (how == u"destroy") {
        f.model.reset();
        QVERIFY(clock.elapsed() < 200); // nothing waited for
    } else {
        f.model->shutDown();
        QVERIFY(!f.model->isWorking());
    }
    const qint64 grace = f.config.stopGrace.count();
    QTRY_VERIFY_WITH_TIMEOUT(!alive(unpacker), 5000);
    QVERIFY2(clock.elapsed() < grace + 1000, qPrintable(QString::number(clock.elapsed())));
    // The data folder is free for the next launcher.
    const int fd = ::open(QFile::encodeName(f.env.base() + u"/.lock"_s).constData(), O_RDWR);
    QVERIFY(fd >= 0);
    QCOMPARE(::flock(fd, LOCK_EX | LOCK_NB), how == u"cancel" ? -1 : 0);
    ::close(fd);
    QTRY_VERIFY(!QFileInfo::exists(f.env.base() + u"/GameStaging"_s) || how != u"cancel");
}

void TestPipeline::stopWhilePlaying()
{
    Fixture f;
    const QString helpers = f.env.root() + u"/helpers"_s;
    ScopedEnv run("FAKE_RUN_SECONDS", "60"), spawn("FAKE_HELPERS", QFile::encodeName(helpers));
    f.model->play();
    QTRY_COMPARE_WITH_TIMEOUT(f.model->state(), AppState::playing(), 20000);
    QTRY_COMPARE(TestEnv::readFile(helpers).count('\n'), 2);
    f.model->play();       // refused while playing
    f.model->updateGame(); // refused while busy: nothing deleted
    QVERIFY(QFileInfo::exists(f.env.base() + u"/imported.marker"_s));
    // A second launcher on the same data folder neither plays nor deletes.
    AppModel second(f.config);
    second.reinstall();
    QVERIFY(QFileInfo::exists(f.env.base() + u"/imported.marker"_s));
    second.play();
    QVERIFY(!second.isWorking());
    QCOMPARE(second.state(), AppState::needs(u"Another Vantro 3D is already using this computer's "
                                             u"game folder. Close it, then press Play again."_s));
    f.model->stopGame();
    QTRY_VERIFY_WITH_TIMEOUT(!f.model->isWorking(), 5000);
    QCOMPARE(f.model->state(), AppState::ready());
    QVERIFY(!f.model->failureReport());
    // What the game started goes with it, also what ignores the request or left its
    // session.
    for (const QByteArray &pid : TestEnv::readFile(helpers).split('\n')) {
        if (!pid.isEmpty())
            QTRY_VERIFY_WITH_TIMEOUT(!alive(pid_t(pid.toInt())), 5000);
    }
}

void TestPipeline::failuresEndInNeeds_data()
{
    QTest::addColumn<QByteArray>("project");
    QTest::addColumn<QString>("engine");
    QTest::addColumn<QString>("message");

    QTest::newRow(".NET project")
        << QByteArray("config_version=5\nconfig/features=PackedStringArray(\"4.3\", \"C#\")\n")
        << u"godot.sh"_s
        << u"This game needs the C# (.NET) Godot build, which this app does not set up."_s;
    QTest::newRow("game that cannot be started")
        << PlayWorld().project << u"godot.sh"_s
        << u"The game could not be started: Permission denied."_s;
    QTest::newRow("engine that cannot start the game")
        << PlayWorld().project << u"crash.sh"_s
        << u"Godot did not finish preparing the game's files (exit code 11). Open \"Show log\" "
           u"for details."_s;
}

void TestPipeline::failuresEndInNeeds()
{
    QFETCH(QByteArray, project);
    QFETCH(QString, engine);
    QFETCH(QString, message);

    PlayWorld world;
    world.project = project;
    world.engine = engine;
    Fixture f(world);
    ScopedEnv unrunnable("FAKE_UNRUNNABLE", message.startsWith(u"The game"_s) ? "1" : "");
    f.playToTheEnd();
    QCOMPARE(f.model->state(), AppState::needs(message));
    // The launch's own failure is no step's problem: no "Problem: " line for it.
    if (!message.startsWith(u"The game"_s))
        QTRY_COMPARE(f.log().last(), u"Problem: "_s + message);
    QVERIFY(!f.model->failureReport());
    QCOMPARE(f.env.tmpEntries(), QStringList{});
}

void TestPipeline::maintenance()
{
    Fixture f;
    ScopedEnv run("FAKE_RUN_SECONDS", "0.6");
    f.playToTheEnd();
    QCOMPARE(f.model->state(), AppState::ready());
    const QString saves = f.model->savesURL();
    TestEnv::writeFile(saves + u"/slot1.save"_s, "lap 1");
    const QString engine = f.env.base() + u"/Engine/4.3-stable/Godot_v4.3-stable_linux.x86_64"_s;
    const int engineFetches = f.server.hits(QString::fromLatin1(PlayWorld::enginePath));
    const int gameFetches = f.server.hits(QString::fromLatin1(PlayWorld::gamePath));

    // Update: the game again, the engine and the saves kept.
    f.model->updateGame();
    QVERIFY(!f.model->info());
    QTRY_VERIFY_WITH_TIMEOUT(!f.model->isWorking(), 20000);
    QCOMPARE(f.model->state(), AppState::ready());
    QCOMPARE(f.server.hits(QString::fromLatin1(PlayWorld::gamePath)), gameFetches + 1);
    QCOMPARE(f.server.hits(QString::fromLatin1(PlayWorld::enginePath)), engineFetches);
    QCOMPARE(TestEnv::readFile(saves + u"/slot1.save"_s), QByteArray("lap 1"));
    QVERIFY(f.model->savesFolderExists());

    // Reinstall: both again.
    f.model->reinstall();
    QTRY_VERIFY_WITH_TIMEOUT(!f.model->isWorking(), 20000);
    QCOMPARE(f.model->state(), AppState::ready());
    QCOMPARE(f.server.hits(QString::fromLatin1(PlayWorld::enginePath)), engineFetches + 1);
    QVERIFY(QFileInfo(engine).isExecutable());
    auto size = runTask(f.model->installedSize());
    QVERIFY(*size.value > 0);

    // Remove everything, from a failure too: nothing left but the saves and the lock.
    ModelPreview(*f.model).failureReport(u"old report"_s).state(AppState::needs(u"x"_s));
    f.model->removeEverything();
    QCOMPARE(f.model->state(), AppState::notDownloaded());
    QVERIFY(!f.model->info() && !f.model->failureReport());
    // Only the lock stays, so that a second launcher still cannot share the folder.
    QCOMPARE(QDir(f.env.base()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
             QStringList{u".lock"_s});
    QCOMPARE(*runTask(f.model->installedSize()).value, qint64(0));
    QCOMPARE(TestEnv::readFile(saves + u"/slot1.save"_s), QByteArray("lap 1"));
    AppModel second(f.config);
    second.play();
    QVERIFY(!second.isWorking());
    f.model->removeEverything(); // on an empty disk too
    QCOMPARE(f.model->state(), AppState::notDownloaded());
}

void TestPipeline::updateOfflineKeepsWhatWasInstalled_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("broken");   // the archive that cannot be had
    QTest::addColumn<QStringList>("kept"); // log lines
    const QString game = u"The update could not be downloaded; your installed game was kept."_s;
    const QString engine =
        u"The engine could not be downloaded again; your installed engine was kept."_s;
    QTest::newRow("update, no game") << u"update"_s << u"game"_s << QStringList{game};
    QTest::newRow("reinstall, no game") << u"reinstall"_s << u"game"_s << QStringList{game, engine};
    QTest::newRow("reinstall, no engine") << u"reinstall"_s << u"engine"_s << QStringList{engine};
}

void TestPipeline::updateOfflineKeepsWhatWasInstalled()
{
    QFETCH(QString, command);
    QFETCH(QString, broken);
    QFETCH(QStringList, kept);

    Fixture f;
    ScopedEnv run("FAKE_RUN_SECONDS", "0.6");
    f.playToTheEnd();
    QCOMPARE(f.model->state(), AppState::ready());
    TestHttpServer::Route refused;
    refused.status = 503;
    f.server.setRoute(
        QString::fromLatin1(broken == u"game" ? PlayWorld::gamePath : PlayWorld::enginePath),
        refused);
    command == u"update"_s ? f.model->updateGame() : f.model->reinstall();
    QTRY_VERIFY_WITH_TIMEOUT(!f.model->isWorking(), 20000);
    QCOMPARE(f.model->state(), AppState::needs(u"The server answered with error 503."_s));
    for (const QString &line : kept)
        QVERIFY2(f.log().contains(line), qPrintable(f.log().join(u'\n')));
    // Game and engine are there, and the next Play starts the game offline.
    QVERIFY(QFileInfo::exists(f.env.base() + u"/"_s + game + u"/project.godot"_s));
    QVERIFY(QFileInfo::exists(f.env.base() + u"/Engine/4.3-stable"_s));
    f.playToTheEnd();
    QCOMPARE(f.model->state(), AppState::ready());
}

// Stands in for the desktop's file manager: with no file manager on the bus, the
// folder that holds the item is opened.
class UrlCatcher : public QObject
{
    Q_OBJECT
public:
    QList<QUrl> urls;
public Q_SLOTS:
    void open(const QUrl &url) { urls.append(url); }
};

void TestPipeline::revealsFolders()
{
    TestEnv env;
    UrlCatcher catcher;
    QDesktopServices::setUrlHandler(u"file"_s, &catcher, "open");
    AppModel model(AppModel::Config{});
    model.showSaves(); // no save folder: nothing opens
    model.revealInFinder();
    QVERIFY(QFileInfo(env.base()).isDir());
    QTRY_COMPARE(catcher.urls, QList<QUrl>{QUrl::fromLocalFile(env.data())});

    QDir().mkpath(model.savesURL());
    QVERIFY(!model.savesFolderExists());
    model.showSaves();
    QVERIFY(model.savesFolderExists());
    QTRY_COMPARE(catcher.urls.size(), 2);
    QCOMPARE(catcher.urls.last(), QUrl::fromLocalFile(env.data() + u"/godot/app_userdata"_s));
    QDesktopServices::unsetUrlHandler(u"file"_s);
}

void TestPipeline::sizeEstimate_data()
{
    QTest::addColumn<bool>("engineSized");
    QTest::addColumn<bool>("gameSized");
    QTest::addColumn<QString>("text"); // empty: none

    QTest::newRow("both") << true << true << u"about 2.5\u00a0MB"_s;
    QTest::newRow("game only") << false << true << u"about 500\u00a0KB"_s;
    QTest::newRow("engine only") << true << false << u"about 2\u00a0MB"_s;
    QTest::newRow("neither") << false << false << QString();
}

void TestPipeline::sizeEstimate()
{
    QFETCH(bool, engineSized);
    QFETCH(bool, gameSized);
    QFETCH(QString, text);

    TestEnv env;
    TestHttpServer server;
    TestHttpServer::Route route;
    route.body = QByteArray(2'000'000, 'e');
    route.status = engineSized ? 200 : 404;
    server.setRoute(u"/releases/3.5.3-stable/Godot_v3.5.3-stable_x11.64.zip"_s, route);
    route.body = QByteArray(500'000, 'g');
    route.status = gameSized ? 200 : 405;
    server.setRoute(u"/master.zip"_s, route);
    AppModel::Config config;
    config.engineEndpoint = server.url(u"/releases/"_s).toString();
    config.gameArchiveUrl = server.url(u"/master.zip"_s).toString();
    AppModel model(config);
    QVERIFY(runVoidTask(model.loadSizeEstimate()).ok());
    QCOMPARE(model.downloadSizeText().value_or(QString()), text);
    QCOMPARE(server.methods(u"/master.zip"_s), QList<QByteArray>{"HEAD"});
}

QTEST_GUILESS_MAIN(TestPipeline)
#include "tst_pipeline.moc"
