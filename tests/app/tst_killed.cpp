// A launcher killed at any moment of a first Play leaves a disk from which the next
// start recovers by itself, and does not fetch again what was complete.
#include "acquisition/enginemanager.h"
#include "playworld.h"
#include "project/projectinspector.h"
#include "testenv.h"
#include "testhttpserver.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QScopeGuard>
#include <QTest>

#include <csignal>

using namespace Qt::StringLiterals;

namespace {
const EngineSpec godot4{u"4.3-stable"_s, u"Godot_v4.3-stable_linux.x86_64.zip"_s, 4};

// Runs the play host until `marker` appears in its output (empty: to its end),
// then `delayMs` later sends it `signal`. The lines it printed.
QStringList runHost(const AppModel::Config &config, const QString &marker, int delayMs,
                    int signal = SIGKILL, qint64 *exitMs = nullptr)
{
    QProcess host;
    host.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    host.start(QStringLiteral(VANTRO_PLAYHOST), {config.engineEndpoint, config.gameArchiveUrl});
    host.waitForStarted(10000);
    QStringList lines;
    while (host.state() == QProcess::Running || host.canReadLine()) {
        if (!host.canReadLine() && !host.waitForReadyRead(60000))
            break;
        while (host.canReadLine()) {
            lines.append(QString::fromUtf8(host.readLine()).chopped(1));
            if (!marker.isEmpty() && lines.last().startsWith(marker)) {
                QTest::qSleep(delayMs);
                QElapsedTimer clock;
                clock.start();
                ::kill(pid_t(host.processId()), signal);
                host.waitForFinished(10000);
                if (exitMs)
                    *exitMs = clock.elapsed();
                return lines;
            }
        }
    }
    host.waitForFinished(10000);
    return lines;
}

bool gameComplete(const QString &base, const QByteArray &project)
{
    const auto root = ProjectInspector::findProjectRoot(base + u"/Game"_s);
    return root && TestEnv::readFile(*root + u"/project.godot"_s) == project &&
           QFileInfo::exists(*root + u"/README.md"_s) && QFileInfo::exists(*root + u"/icon.png"_s);
}
} // namespace

class TestKilled : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void recoversFromAKill_data();
    void recoversFromAKill();
    void quitEndsEveryChild();
};

void TestKilled::recoversFromAKill_data()
{
    QTest::addColumn<QString>("marker");
    QTest::addColumn<int>("delayMs");

    QTest::newRow("game download") << u"state: Downloading: the game"_s << 30;
    QTest::newRow("game unpack starts") << u"state: Setting up: unpacking the game"_s << 0;
    QTest::newRow("game unpack") << u"state: Setting up: unpacking the game"_s << 8;
    QTest::newRow("game in place") << u"log: Game unpacked."_s << 0;
    QTest::newRow("checksum list") << u"state: Downloading: checksum for"_s << 0;
    QTest::newRow("engine download") << u"state: Downloading: Godot 4.3-stable"_s << 200;
    QTest::newRow("checksum") << u"state: Setting up: checking the engine download"_s << 5;
    QTest::newRow("engine unpack starts") << u"state: Setting up: unpacking the engine"_s << 0;
    QTest::newRow("engine unpack") << u"state: Setting up: unpacking the engine"_s << 60;
    QTest::newRow("import") << u"state: Setting up: First-time setup"_s << 0;
    QTest::newRow("import written") << u"log: Import done."_s << 0;
    QTest::newRow("launch") << u"state: Starting the game"_s << 0;
    QTest::newRow("playing") << u"state: Playing"_s << 0;
}

void TestKilled::recoversFromAKill()
{
    QFETCH(QString, marker);
    QFETCH(int, delayMs);

    TestEnv env;
    TestHttpServer server;
    PlayWorld world;
    world.gamePadding = 3'000'000;
    world.enginePadding = 30'000'000;
    const AppModel::Config config = world.serve(server, env.root());
    // Slow enough that a download is a moment worth interrupting.
    for (const char *path : {PlayWorld::gamePath, PlayWorld::enginePath}) {
        const QString route = QString::fromLatin1(path);
        TestHttpServer::Route drip =
            TestHttpServer::file(env.root() + (route.endsWith(u"master.zip"_s)
                                                   ? u"/game.zip"_s
                                                   : u"/Godot_v4.3-stable_linux.x86_64.zip"_s));
        drip.dripBytesPerChunk = 256 * 1024;
        drip.dripDelayMs = 10;
        server.setRoute(route, drip);
    }
    const ScopedEnv run("FAKE_RUN_SECONDS", "0.5");

    const QStringList before = runHost(config, marker, delayMs);
    QVERIFY2(before.last().startsWith(marker), qPrintable(before.join(u'\n')));

    // What a killed run leaves: never a half-installed game or engine, never a
    // marker for a game whose import it does not record.
    const QString base = env.base();
    const bool gameThere = QFileInfo::exists(base + u"/Game"_s);
    const bool gameDone = gameComplete(base, world.project);
    QCOMPARE(gameThere, gameDone);
    const bool engineThere =
        QFileInfo::exists(DataLayout::fromEnvironment().engine(godot4.version));
    const bool engineDone =
        EngineManager::executable(DataLayout::fromEnvironment(), godot4).has_value();
    QCOMPARE(engineThere, engineDone);
    if (QFileInfo::exists(base + u"/imported.marker"_s))
        QVERIFY(gameDone && EngineManager::importIsComplete(base + u"/Game/Zorbit-master"_s));

    const int gameFetches = server.hits(QString::fromLatin1(PlayWorld::gamePath));
    const int engineFetches = server.hits(QString::fromLatin1(PlayWorld::enginePath));
    const QStringList after = runHost(config, QString(), 0);
    QCOMPARE(after.last(), u"done: Ready"_s);
    if (gameDone)
        QCOMPARE(server.hits(QString::fromLatin1(PlayWorld::gamePath)), gameFetches);
    if (engineDone)
        QCOMPARE(server.hits(QString::fromLatin1(PlayWorld::enginePath)), engineFetches);

    // Nothing of the dead run is left behind.
    QCOMPARE(QDir(base).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
             (QStringList{u".lock"_s, u"Engine"_s, u"Game"_s, u"imported.marker"_s}));
    QCOMPARE(QDir(base + u"/Engine"_s).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
             QStringList{u"4.3-stable"_s});
    // (A fake engine killed with its launcher may leave its own temporary file.)
    QCOMPARE(env.tmpEntries().filter(u"vantro-"_s), QStringList{});
}

// Quitting while the game and helpers that ignore the terminate request run ends
// them all within the grace and a moment, and the launcher itself exits.
void TestKilled::quitEndsEveryChild()
{
    TestEnv env;
    TestHttpServer server;
    const AppModel::Config config = PlayWorld().serve(server, env.root());
    const QString helpers = env.root() + u"/helpers"_s;
    const ScopedEnv run("FAKE_RUN_SECONDS", "60"),
        spawn("FAKE_HELPERS", QFile::encodeName(helpers));
    qint64 exitMs = -1;
    const QStringList lines = runHost(config, u"state: Playing"_s, 300, SIGTERM, &exitMs);
    QVERIFY2(lines.last() == u"state: Playing"_s, qPrintable(lines.join(u'\n')));
    const QList<QByteArray> pids = TestEnv::readFile(helpers).split('\n');
    const auto reap = qScopeGuard([&] {
        for (const QByteArray &pid : pids)
            if (!pid.isEmpty())
                ::kill(pid.toInt(), SIGKILL);
    });
    // The play host's grace is 0.5 s.
    QVERIFY2(exitMs >= 0 && exitMs < 2000, qPrintable(QString::number(exitMs)));
    QCOMPARE(pids.size(), 3);
    for (const QByteArray &pid : pids) {
        if (!pid.isEmpty())
            QTRY_VERIFY(::kill(pid.toInt(), 0) != 0 ||
                        TestEnv::readFile(u"/proc/"_s + QString::fromLatin1(pid) + u"/stat"_s)
                            .contains(") Z"));
    }
    // Nothing in the way of the next launcher.
    QVERIFY(runHost(config, QString(), 0).last().startsWith(u"done: "_s));
}

QTEST_GUILESS_MAIN(TestKilled)
#include "tst_killed.moc"
