// One Play from an empty disk with the real Godot 3 engine from Debian, served as
// the official build: checksum, unpack, the editor's import closed by the watcher,
// the game in a window, stopped by the player.
#include "app/appmodel.h"
#include "testenv.h"
#include "testhttpserver.h"

#include <QDir>
#include <QStandardPaths>
#include <QTest>

using namespace Qt::StringLiterals;

class TestRealEngine : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void playsWithTheRealEngine()
    {
        const QString godot = QStandardPaths::findExecutable(u"godot3"_s);
        if (godot.isEmpty())
            QSKIP("needs the godot3 package");
        if (qEnvironmentVariableIsEmpty("DISPLAY"))
            QSKIP("needs an X server: run under xvfb-run, as CTest does");

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
        // The fixture as published games have it, a ".gdignore" folder with an image in
        // it included: the engine never imports that image.
        QDir().mkpath(env.root() + u"/game-src"_s);
        TestEnv::toolOutput(u"cp"_s, {u"-r"_s, QStringLiteral(VANTRO_TEST_DATA_DIR "/zorbit3d"),
                                      env.root() + u"/game-src/Zorbit-master"_s});
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
                             u"/Game/Zorbit-master --windowed"_s));
        const QString game = env.base() + u"/Game/Zorbit-master"_s;
        QVERIFY(QFileInfo::exists(game + u"/checker.png.import"_s));
        QVERIFY(!QFileInfo::exists(game + u"/docs/screenshot.png.import"_s));
        QCOMPARE(model.info()->controls.value(0).inputs, u"Up arrow, W"_s);

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
