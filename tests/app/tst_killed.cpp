// A launcher killed at any moment of a first Play leaves a disk from which the next
// start recovers by itself, and does not fetch again what was complete.
#include "acquisition/enginemanager.h"
#include "playworld.h"
#include "testenv.h"
#include "testhttpserver.h"

#include <QFileInfo>
#include <QProcess>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {
const EngineSpec godot4{u"4.3-stable"_s, u"Godot_v4.3-stable_linux.x86_64.zip"_s, 4};

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

} // namespace

class TestKilled : public QObject
{
    Q_OBJECT

private Q_SLOTS:
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

        TestEnv env;
        TestHttpServer server;
        PlayWorld world;
        world.gamePadding = 3'000'000;
        world.enginePadding = 30'000'000;
        const AppModel::Config config = world.serve(server, env.root());
        const QString gamePath = QString::fromLatin1(PlayWorld::gamePath),
                      enginePath = QString::fromLatin1(PlayWorld::enginePath);
        // Slow enough that a download is a moment worth interrupting.
        for (const QString &zip : {u"game.zip"_s, u"Godot_v4.3-stable_linux.x86_64.zip"_s}) {
            TestHttpServer::Route drip = TestHttpServer::file(env.root() + u'/' + zip);
            drip.dripBytesPerChunk = 256 * 1024;
            drip.dripDelayMs = 10;
            server.setRoute(zip == u"game.zip"_s ? gamePath : enginePath, drip);
        }
        const ScopedEnv run("FAKE_RUN_SECONDS", "0.5");
        const QStringList before = runHost(config, marker, delayMs);
        QVERIFY2(before.last().startsWith(marker), qPrintable(before.join(u'\n')));

        // What a killed run leaves: never a half-installed game or engine, never a
        // marker for a game whose import it does not record.
        const QString base = env.base(), game = base + u"/Game/Zorbit-master"_s;
        const bool gameDone = TestEnv::readFile(game + u"/project.godot"_s) == world.project &&
                              QFileInfo::exists(game + u"/README.md"_s) &&
                              QFileInfo::exists(game + u"/icon.png"_s);
        QCOMPARE(QFileInfo::exists(base + u"/Game"_s), gameDone);
        const DataLayout layout = DataLayout::fromEnvironment();
        const bool engineDone = EngineManager::executable(layout, godot4).has_value();
        QCOMPARE(QFileInfo::exists(layout.engine(godot4.version)), engineDone);
        if (QFileInfo::exists(base + u"/imported.marker"_s))
            QVERIFY(gameDone && EngineManager::importIsComplete(game));

        const int gameFetches = server.hits(gamePath), engineFetches = server.hits(enginePath);
        QCOMPARE(runHost(config, QString(), 0).last(), u"done: Ready"_s);
        if (gameDone)
            QCOMPARE(server.hits(gamePath), gameFetches);
        if (engineDone)
            QCOMPARE(server.hits(enginePath), engineFetches);
        // Nothing of the dead run is left behind.
        QCOMPARE(TestEnv::entries(base),
                 (QStringList{u".lock"_s, u"Engine"_s, u"Game"_s, u"imported.marker"_s}));
        QCOMPARE(TestEnv::entries(base + u"/Engine"_s), QStringList{u"4.3-stable"_s});
        QCOMPARE(env.tmpEntries(), QStringList{});
    }
};

QTEST_GUILESS_MAIN(TestKilled)
#include "tst_killed.moc"
