#include "acquisition/repodownloader.h"
#include "app/appmodel.h"
#include "app/pipeline.h"
#include "common/fileops.h"
#include "coro.h"
#include "process/processbox.h"
#include "testenv.h"
#include "testhttpserver.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QScopeGuard>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {
const QByteArray project = "config_version=4\n[application]\nconfig/name=\"Zorbit\"\n";

// An installed, imported game that a bad update must leave exactly as it was.
void installPreviousGame(const TestEnv &env)
{
    TestEnv::writeFile(env.base() + u"/Game/Old-master/project.godot"_s, "config_version=4\n");
    TestEnv::writeFile(env.base() + u"/imported.marker"_s, QByteArray());
}

bool previousGameIntact(const TestEnv &env)
{
    return TestEnv::readFile(env.base() + u"/Game/Old-master/project.godot"_s) ==
               "config_version=4\n" &&
           QFileInfo::exists(env.base() + u"/imported.marker"_s);
}
} // namespace

class TestGameDownload : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void installsTheGame_data();
    void installsTheGame();
    void badArchivesLoseNothing_data();
    void badArchivesLoseNothing();
    void emptyPathsTouchNothing();
};

void TestGameDownload::installsTheGame_data()
{
    QTest::addColumn<QString>("projectPath"); // inside the zip
    QTest::addColumn<QString>("clutter");     // what a killed run or a stray file left
    QTest::newRow("top folder as the host serves it")
        << u"Zorbit-master/project.godot"_s << QString();
    QTest::newRow("project at the root of the zip") << u"project.godot"_s << QString();
    QTest::newRow("names that are not UTF-8 everywhere")
        << u"Zorbit-master/project.godot"_s << u"badNames"_s;
    QTest::newRow("files where Game and GameStaging belong")
        << u"Zorbit-master/project.godot"_s << u"files"_s;
}

void TestGameDownload::installsTheGame()
{
    QFETCH(QString, projectPath);
    QFETCH(QString, clutter);
    TestEnv env;
    TestHttpServer server;
    const QString source = env.root() + u"/source"_s;
    TestEnv::writeFile(source + u"/"_s + projectPath, project);
    TestEnv::writeFile(source + u"/"_s + QFileInfo(projectPath).path() + u"/run.sh"_s,
                       "#!/bin/sh\n", true);
    TestEnv::zipFolder(source, env.root() + u"/game.zip"_s);
    server.setRoute(u"/archive/refs/heads/master.zip"_s,
                    TestHttpServer::file(env.root() + u"/game.zip"_s));
    installPreviousGame(env);
    if (clutter == u"badNames") {
        for (const QString &folder : {u"/Game/Old-master"_s, u"/GameStaging/x"_s, u"/Game.old"_s})
            TestEnv::touchRaw(QFile::encodeName(env.base() + folder) + "/bad\xff\xfename");
    } else if (clutter == u"files") {
        QDir(env.base() + u"/Game"_s).removeRecursively();
        TestEnv::writeFile(env.base() + u"/Game"_s, "a file");
        TestEnv::writeFile(env.base() + u"/GameStaging"_s, "a file");
    }

    AppModel::Config config;
    config.gameArchiveUrl = server.url(u"/archive/refs/heads/master.zip"_s).toString();
    AppModel model(config);
    auto outcome = runVoidTask(model.pipeline().downloadGame());
    QVERIFY2(outcome.ok(), qPrintable(outcome.errorText()));
    // Nothing of the old game, its import record or any leftover stays beside it.
    QCOMPARE(QDir(env.base()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
             QStringList{u"Game"_s});

    const QString installed = env.base() + u"/Game/"_s + projectPath;
    QCOMPARE(TestEnv::readFile(installed), project);
    QVERIFY(QFileInfo(QFileInfo(installed).path() + u"/run.sh"_s).isExecutable());
    // The old copy and its import record are gone; the new copy must be imported.
    QVERIFY(!QFileInfo::exists(env.base() + u"/Game/Old-master"_s));
    QCOMPARE(model.state(), AppState::settingUp(u"unpacking the game"_s));
    QTRY_COMPARE(model.log()->lines().last(), u"Game unpacked."_s);
    QCOMPARE(env.tmpEntries(), QStringList{});
}

void TestGameDownload::badArchivesLoseNothing_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("message"); // "~" starts a part that must be contained

    QTest::newRow("no project.godot")
        << u"noProject"_s << u"The downloaded game has no project.godot file."_s;
    QTest::newRow("project too deep")
        << u"tooDeep"_s << u"The downloaded game has no project.godot file."_s;
    QTest::newRow("corrupt zip") << u"corrupt"_s
                                 << u"Unpacking the download failed (bsdtar exit 1)."_s;
    QTest::newRow("entry escaping with ..")
        << u"dotdot"_s << u"Unpacking the download failed (bsdtar exit 1)."_s;
    QTest::newRow("entry written through a symlink")
        << u"symlink"_s << u"Unpacking the download failed (bsdtar exit 1)."_s;
    QTest::newRow("404") << u"404"_s << u"The server answered with error 404."_s;
    QTest::newRow("500") << u"500"_s << u"The server answered with error 500."_s;
    QTest::newRow("reset mid-download") << u"reset"_s << u"~The download failed: "_s;
    QTest::newRow("base folder blocked by a file")
        << u"blockedBase"_s << u"~Could not create the folder"_s;
    QTest::newRow("bad address") << u"badAddress"_s << u"Bad game address."_s;
    QTest::newRow("name that is not UTF-8")
        << u"badName"_s
        << u"The download holds file names that are not valid UTF-8, which this app cannot "
           u"handle, so it was not installed."_s;
    QTest::newRow("announced size beyond the free space")
        << u"huge"_s << u"~There is not enough free space: 2 PB is needed on the disk"_s;
    // A real small disk as the temporary folder.
    QTest::newRow("small disk, announced size: refused before writing")
        << u"smallDiskAnnounced"_s << u"~There is not enough free space: 3 MB is needed"_s;
    QTest::newRow("small disk, unannounced size: the system's reason")
        << u"smallDisk"_s << u"~: No space left on device."_s;
    QTest::newRow("redirect loop")
        << u"loop"_s << u"The download failed: the server redirected it too many times."_s;
}

void TestGameDownload::badArchivesLoseNothing()
{
    QFETCH(QString, fault);
    QFETCH(QString, message);

    TestEnv env;
    const bool smallDisk = fault.startsWith(u"smallDisk"_s);
    QProcess mount;
    if (smallDisk)
        mount.start(u"mount"_s,
                    {u"-t"_s, u"tmpfs"_s, u"-o"_s, u"size=1m"_s, u"tmpfs"_s, env.tmp()});
    if (smallDisk && (!mount.waitForFinished(10000) || mount.exitCode() != 0))
        QSKIP("mounting a small tmpfs needs root and a system that allows mounts here");
    const auto unmount = qScopeGuard([&] {
        if (smallDisk)
            QProcess::execute(u"umount"_s, {env.tmp()});
    });
    TestHttpServer server;
    const QString zip = env.root() + u"/game.zip"_s;
    const QString source = env.root() + u"/source"_s;
    const QString outside = env.root() + u"/outside"_s;
    QDir().mkpath(outside);
    TestEnv::writeFile(source + u"/payload.txt"_s, "payload");
    if (fault == u"noProject") {
        TestEnv::writeFile(source + u"/Zorbit-master/README.md"_s, "# no project here");
        TestEnv::zipFolder(source, zip);
    } else if (fault == u"tooDeep") {
        TestEnv::writeFile(source + u"/a/b/c/d/project.godot"_s, project);
        TestEnv::zipFolder(source, zip);
    } else if (fault == u"corrupt") {
        TestEnv::writeFile(zip, "PK\x03\x04 definitely not a complete zip archive");
    } else if (fault == u"dotdot") {
        TestEnv::zipMtree(u"#mtree\n./project.godot type=file contents=payload.txt\n"
                          u"../../../outside/escaped.txt type=file contents=payload.txt\n"_s,
                          source, zip);
    } else if (fault == u"symlink") {
        TestEnv::zipMtree(u"#mtree\n./project.godot type=file contents=payload.txt\n"
                          u"./link type=link link="_s +
                              QString(outside).replace(u' ', u"\\040"_s) +
                              u"\n./link/escaped.txt type=file contents=payload.txt\n"_s,
                          source, zip);
    } else if (fault == u"badName") {
        TestEnv::zipMtree(u"#mtree\n./project.godot type=file contents=payload.txt\n"
                          u"./bad\\377name type=file contents=payload.txt\n"_s,
                          source, zip);
    } else {
        TestEnv::writeFile(source + u"/Zorbit-master/project.godot"_s, project);
        TestEnv::zipFolder(source, zip);
    }
    TestHttpServer::Route route = TestHttpServer::file(zip);
    if (fault == u"404" || fault == u"500") {
        route = {};
        route.status = fault.toInt();
    }
    if (fault == u"reset") {
        route = {};
        route.body = QByteArray(2000000, 'z');
        route.resetAfterBytes = 30000;
    }
    if (fault == u"huge") {
        route = {};
        route.sendLength = false;
        route.headers = {{"Content-Length", "1000000000000000"}};
    }
    if (fault == u"loop")
        route = TestHttpServer::redirect("/master.zip");
    if (smallDisk) {
        route = {};
        route.body = QByteArray(3000000, 'z');
        route.sendLength = fault.endsWith(u"Announced"_s);
    }
    server.setRoute(u"/master.zip"_s, route);

    if (fault == u"blockedBase")
        TestEnv::writeFile(env.base(), "a file where the base folder should be");
    else
        installPreviousGame(env);

    AppModel::Config config;
    config.gameArchiveUrl =
        fault == u"badAddress" ? u"::not an address::"_s : server.url(u"/master.zip"_s).toString();
    AppModel model(config);
    auto outcome = runVoidTask(model.pipeline().downloadGame(), 30000);
    QVERIFY(!outcome.ok());
    if (message.startsWith(u'~'))
        QVERIFY2(outcome.errorText().contains(message.mid(1)), qPrintable(outcome.errorText()));
    else
        QCOMPARE(outcome.errorText(), message);

    if (fault == u"blockedBase")
        QVERIFY(QFileInfo(env.base()).isFile());
    else
        QVERIFY(previousGameIntact(env));
    QVERIFY(!QFileInfo::exists(env.base() + u"/GameStaging"_s));
    QCOMPARE(QDir(outside).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList{});
    QVERIFY(!QFileInfo::exists(env.root() + u"/../outside"_s));
    QCOMPARE(env.tmpEntries(), QStringList{});
}

void TestGameDownload::emptyPathsTouchNothing()
{
    TestEnv env;
    const QString cwd = QDir::currentPath();
    const auto back = qScopeGuard([&] { QDir::setCurrent(cwd); });
    TestEnv::writeFile(env.root() + u"/here/kept"_s, "kept");
    QVERIFY(QDir::setCurrent(env.root() + u"/here"_s));
    {
        const FolderGuard guard{QString()};
    }
    QVERIFY(!removeTree(u"kept"_s));
    TestEnv::zipFolder(env.root() + u"/here"_s, env.root() + u"/x.zip"_s);
    LogStore log;
    auto outcome = runVoidTask(RepoDownloader::unzip(env.root() + u"/x.zip"_s, QString(), &log,
                                                     std::make_shared<ProcessBox>()));
    QCOMPARE(outcome.errorText(), u"There is no folder to unpack the download into."_s);
    QCOMPARE(TestEnv::readFile(env.root() + u"/here/kept"_s), QByteArray("kept"));
    QCOMPARE(QDir().entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList{u"kept"_s});
}

QTEST_GUILESS_MAIN(TestGameDownload)
#include "tst_gamedownload.moc"
