// The real Godot 3 engine from Debian: its editor imports each kind of asset off
// screen, judged by what it wrote; and one Play from an empty disk with it served as
// the official build: checksum, unpack, the import, the game in a window, stopped by
// the player.
#include "acquisition/enginemanager.h"
#include "app/appmodel.h"
#include "app/pipeline.h"
#include "coro.h"
#include "importfixtures.h"
#include "testenv.h"
#include "testhttpserver.h"

#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QStandardPaths>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {
// What a game's start must never print: a resource the import should have made.
QStringList missingResources(const QStringList &lines)
{
    QStringList found = lines.filter(u"Cannot open file"_s);
    return found << lines.filter(u"Failed loading resource"_s);
}
} // namespace

class TestRealEngine : public QObject
{
    Q_OBJECT

    QString godot;

private Q_SLOTS:
    void initTestCase()
    {
        godot = QStandardPaths::findExecutable(u"godot3"_s);
        if (godot.isEmpty())
            QSKIP("needs the godot3 package");
        if (qEnvironmentVariableIsEmpty("DISPLAY"))
            QSKIP("needs an X server for the game: run under xvfb-run, as CTest does");
    }

    void importsEachKind_data()
    {
        QTest::addColumn<QString>("kind");
        for (const QString &kind : ImportFixtures::kinds())
            QTest::newRow(qPrintable(kind)) << kind;
    }
    void importsEachKind()
    {
        QFETCH(QString, kind);
        TestEnv env;
        const ImportFixture fixture = ImportFixtures::write(kind, env.base() + u"/Game/"_s + kind);
        AppModel model(AppModel::Config{});
        QElapsedTimer clock;
        const QString note =
            u"Godot 3 prepares the game's files in the background; no window opens."_s;
        qint64 displayReady = -1, editorStart = -1, completeAt = -1, closedAt = -1;
        connect(model.log(), &LogStore::linesChanged, this, [&] {
            const QStringList lines = model.log()->lines();
            if (displayReady < 0 && lines.contains(note))
                displayReady = clock.elapsed();
            if (editorStart < 0 && !lines.filter(u"Godot Engine v"_s).isEmpty())
                editorStart = clock.elapsed();
            if (closedAt < 0 && lines.contains(u"Import finished, closing the Godot editor."_s))
                closedAt = clock.elapsed();
        });
        QTimer poll;
        connect(&poll, &QTimer::timeout, this, [&] {
            if (completeAt < 0 && EngineManager::importIsComplete(fixture.root, 3))
                completeAt = clock.elapsed();
        });
        poll.start(100);
        clock.start();
        const EngineSpec godot3{u"3.5.3-stable"_s, u"Godot_v3.5.3-stable_x11.64.zip"_s, 3};
        auto outcome =
            runVoidTask(model.pipeline().importProject(godot, godot3, fixture.root), 300000);
        poll.stop();
        const QStringList log = model.log()->lines();
        QVERIFY2(outcome.errorText().isEmpty(), qPrintable(log.join(u'\n')));
        QVERIFY(displayReady >= 0);

        // The judgement agrees with what the engine wrote: each asset it imports has its
        // sidecar and its imported file under Godot's own name for it; the rest has none.
        QVERIFY(EngineManager::importIsComplete(fixture.root, 3));
        for (const QString &asset : fixture.imported) {
            QVERIFY2(QFileInfo::exists(fixture.root + u'/' + asset + u".import"_s),
                     qPrintable(asset));
            const QString base = ImportFixtures::importBase(asset).mid(6); // after res://
            const QStringList made = QDir(fixture.root + u'/' + QFileInfo(base).path())
                                         .entryList({QFileInfo(base).fileName() + u".*"_s})
                                         .filter(QRegularExpression(u"\\.(?!md5$)[^.]+$"_s));
            QVERIFY2(!made.isEmpty(), qPrintable(asset));
        }
        for (const QString &asset : fixture.notImported)
            QVERIFY2(!QFileInfo::exists(fixture.root + u'/' + asset + u".import"_s),
                     qPrintable(asset));

        // And the game then starts without missing anything.
        QProcess game;
        game.setProcessChannelMode(QProcess::MergedChannels);
        game.start(godot, {u"--path"_s, fixture.root, u"--windowed"_s});
        QVERIFY(game.waitForStarted());
        QTest::qWait(4000);
        game.terminate();
        game.waitForFinished(10000);
        const QStringList gameLog = QString::fromUtf8(game.readAll()).split(u'\n');
        QCOMPARE(missingResources(gameLog), QStringList());
        qInfo("%s: display ready %lld ms, editor started %.1f s, import complete %.1f s, editor "
              "closed %.1f s (after the start %.1f s and %.1f s)",
              qPrintable(kind), displayReady, editorStart / 1000.0, completeAt / 1000.0,
              closedAt / 1000.0, (completeAt - editorStart) / 1000.0,
              (closedAt - editorStart) / 1000.0);
    }

    void playsWithTheRealEngine()
    {
        TestEnv env;
        TestHttpServer server;
        const QString release = env.root() + u"/release/Godot_v3.5.3-stable_x11.64"_s;
        TestEnv::writeFile(release, TestEnv::readFile(QFileInfo(godot).canonicalFilePath()), true);
        const QString zip = env.root() + u"/Godot_v3.5.3-stable_x11.64.zip"_s;
        TestEnv::zipFolder(env.root() + u"/release"_s, zip);
        server.setRoute(u"/releases/3.5.3-stable/Godot_v3.5.3-stable_x11.64.zip"_s,
                        TestHttpServer::file(zip));
        TestHttpServer::Route sums;
        sums.body = (TestEnv::toolOutput(u"sha512sum"_s, {zip}).section(u' ', 0, 0) +
                     u"  Godot_v3.5.3-stable_x11.64.zip\n"_s)
                        .toUtf8();
        server.setRoute(u"/releases/3.5.3-stable/SHA512-SUMS.txt"_s, sums);
        // Every kind of asset in one game, as published games have them. At the top of
        // the archive: below a folder, the walk for the project may meet the project
        // nested inside it first.
        ImportFixtures::write(u"all"_s, env.root() + u"/game-src"_s);
        TestEnv::zipFolder(env.root() + u"/game-src"_s, env.root() + u"/game.zip"_s);
        server.setRoute(u"/master.zip"_s, TestHttpServer::file(env.root() + u"/game.zip"_s));

        AppModel::Config config;
        config.engineEndpoint = server.url(u"/releases/"_s).toString();
        config.gameArchiveUrl = server.url(u"/master.zip"_s).toString();
        config.promotionDelay = std::chrono::milliseconds(4000);
        QList<AppState> states; // outlives the model, which may still report as it goes
        AppModel model(config);
        connect(&model, &AppModel::stateChanged, this, [&] { states.append(model.state()); });
        model.play();
        QTRY_VERIFY_WITH_TIMEOUT(model.state() == AppState::playing() || !model.isWorking(),
                                 240000);
        const QStringList log = model.log()->lines();
        QVERIFY2(model.state() == AppState::playing(), qPrintable(log.join(u'\n')));
        QVERIFY(log.contains(u"Import finished, closing the Godot editor."_s));
        QVERIFY(log.contains(u"Starting: Godot_v3.5.3-stable_x11.64 --path "_s + env.base() +
                             u"/Game --windowed"_s));
        // Once playing, the game has loaded its main scene, and all it needed was there.
        const QStringList played = log.mid(log.lastIndexOf(QRegularExpression(u"Starting: .*"_s)));
        QVERIFY2(missingResources(played).isEmpty(), qPrintable(played.join(u'\n')));

        model.stopGame();
        QTRY_VERIFY_WITH_TIMEOUT(!model.isWorking(), 20000);
        QVERIFY(!model.failureReport());
        QCOMPARE(states.mid(states.size() - 3),
                 (QList<AppState>{AppState::starting(), AppState::playing(), AppState::ready()}));
        // The engine may leave files of its own there; ours are gone.
        QCOMPARE(env.tmpEntries().filter(u"vantro-"_s), QStringList{});
    }
};

QTEST_GUILESS_MAIN(TestRealEngine)
#include "tst_realengine.moc"
