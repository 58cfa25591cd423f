#include "app/appmodel.h"
#include "app/modelpreview.h"
#include "app/pipeline.h"
#include "coro.h"
#include "playworld.h"
#include "testenv.h"
#include "testhttpserver.h"

#include <QDesktopServices>
#include <QDir>
#include <QFileInfo>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {
const QString game = u"Game/Zorbit-master"_s;

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
    void cancelDuringTheEngineDownload();
    void stopWhilePlaying();
    void failuresEndInNeeds_data();
    void failuresEndInNeeds();
    void maintenance();
    void revealsFolders();
    void sizeEstimate_data();
    void sizeEstimate();
    void modelGoneMidDownload();
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

void TestPipeline::cancelDuringTheEngineDownload()
{
    PlayWorld world;
    world.enginePadding = 3'000'000;
    Fixture f(world);
    TestHttpServer::Route drip =
        TestHttpServer::file(f.env.root() + u"/Godot_v4.3-stable_linux.x86_64.zip"_s);
    drip.dripBytesPerChunk = 20000;
    drip.dripDelayMs = 20;
    f.server.setRoute(QString::fromLatin1(PlayWorld::enginePath), drip);
    f.model->play();
    QTRY_VERIFY_WITH_TIMEOUT(f.model->state() == AppState::downloading(u"Godot 4.3-stable"_s) &&
                                 f.model->progress().value_or(0) > 0.05,
                             20000);
    f.model->cancel();
    f.model->play(); // refused: still busy
    QTRY_VERIFY_WITH_TIMEOUT(!f.model->isWorking(), 10000);
    QCOMPARE(f.model->state(), AppState::notDownloaded());
    QTRY_COMPARE(f.log().last(), u"Cancelled."_s);
    QVERIFY(!f.model->progress());
    QCOMPARE(f.model->progressText(), QString());
    QCOMPARE(f.env.tmpEntries(), QStringList{});
    QVERIFY(!QFileInfo::exists(f.env.base() + u"/Engine/4.3-stable"_s));
    QVERIFY(QFileInfo::exists(f.env.base() + u"/"_s + game + u"/project.godot"_s));
}

void TestPipeline::stopWhilePlaying()
{
    Fixture f;
    ScopedEnv run("FAKE_RUN_SECONDS", "60");
    f.model->play();
    QTRY_COMPARE_WITH_TIMEOUT(f.model->state(), AppState::playing(), 20000);
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
}

void TestPipeline::failuresEndInNeeds_data()
{
    QTest::addColumn<QByteArray>("project");
    QTest::addColumn<QString>("engine");
    QTest::addColumn<QString>("message");

    QTest::newRow(".NET project")
        << QByteArray("config_version=5\nconfig/features=PackedStringArray(\"4.3\", \"C#\")\n")
        << u"godot4-import.sh"_s
        << u"This game needs the C# (.NET) Godot build, which this app does not set up."_s;
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
    f.playToTheEnd();
    QCOMPARE(f.model->state(), AppState::needs(message));
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

    // Remove everything: nothing left but the saves.
    ModelPreview(*f.model).failureReport(u"old report"_s);
    f.model->removeEverything();
    QCOMPARE(f.model->state(), AppState::notDownloaded());
    QVERIFY(!f.model->info() && !f.model->failureReport());
    // Only the lock stays, so that a second launcher still cannot share the folder.
    QCOMPARE(QDir(f.env.base()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
             QStringList{u".lock"_s});
    QCOMPARE(*runTask(f.model->installedSize()).value, qint64(0));
    QCOMPARE(TestEnv::readFile(saves + u"/slot1.save"_s), QByteArray("lap 1"));
    f.model->removeEverything(); // on an empty disk too
    QCOMPARE(f.model->state(), AppState::notDownloaded());
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

    QTest::newRow("both") << true << true << u"about 2.5 MB"_s;
    QTest::newRow("game only") << false << true << u"about 500 KB"_s;
    QTest::newRow("engine only") << true << false << u"about 2 MB"_s;
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

// The pipeline holds the model only weakly: a model that goes away mid-download
// must not be resumed into.
void TestPipeline::modelGoneMidDownload()
{
    Fixture f;
    TestHttpServer::Route drip = TestHttpServer::file(f.env.root() + u"/game.zip"_s);
    drip.dripBytesPerChunk = 100;
    drip.dripDelayMs = 50;
    f.server.setRoute(QString::fromLatin1(PlayWorld::gamePath), drip);
    f.model->play();
    QTRY_COMPARE_WITH_TIMEOUT(f.model->state(), AppState::downloading(u"the game"_s), 5000);
    f.model.reset();
    QTest::qWait(300);
    QCOMPARE(f.env.tmpEntries(), QStringList{});
}

QTEST_GUILESS_MAIN(TestPipeline)
#include "tst_pipeline.moc"
