// Downloads, the game's unpack and the engine's verified install, against a real
// loopback server, the real bsdtar and real folders: what arrives, and what a bad
// download must never lose.
#include "acquisition/engineinstall.h"
#include "acquisition/filedownloader.h"
#include "acquisition/repodownloader.h"
#include "acquisition/tempfolders.h"
#include "app/appmodel.h"
#include "app/pipeline.h"
#include "common/fileops.h"
#include "coro.h"
#include "process/processfailure.h"
#include "testenv.h"
#include "testhttpserver.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QTest>
#include <QTimer>

using namespace Qt::StringLiterals;

namespace {
const QString zipName = u"Godot_v4.3-stable_linux.x86_64.zip"_s;
const QString zipPath = u"/releases/4.3-stable/"_s + zipName;
const QString listPath = u"/releases/4.3-stable/SHA512-SUMS.txt"_s;
const EngineSpec spec{u"4.3-stable"_s, zipName, 4};
const QString digestA = QString(128, u'a');
const QByteArray project = "config_version=4\n[application]\nconfig/name=\"Zorbit\"\n";

QByteArray payload(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char('a' + i % 26);
    return bytes;
}

TestHttpServer::Route body(const QByteArray &bytes, int status = 200)
{
    TestHttpServer::Route route;
    route.body = bytes;
    route.status = status;
    return route;
}

// "~" before an expected message means: contained in the error.
void compareError(const QString &error, const QString &expected)
{
    if (expected.startsWith(u'~'))
        QVERIFY2(error.contains(expected.mid(1)), qPrintable(error));
    else
        QCOMPARE(error, expected);
}

QString sha512sum(const QString &file)
{
    return TestEnv::toolOutput(u"sha512sum"_s, {file}).section(u' ', 0, 0).trimmed();
}

// An engine release as the engine project publishes it: its zip and checksum list.
QString serveRelease(const TestEnv &env, TestHttpServer &server, bool withExecutable = true)
{
    const QString folder = env.root() + u"/release-src"_s;
    TestEnv::writeFile(folder + u"/Godot_v4.3-stable_linux.x86_64"_s, "#!/bin/sh\n",
                       withExecutable);
    TestEnv::writeFile(folder + u"/README.txt"_s, "not the engine");
    const QString zip = env.root() + u"/release/"_s + zipName;
    TestEnv::zipFolder(folder, zip);
    server.setRoute(zipPath, TestHttpServer::file(zip));
    server.setRoute(listPath, body((sha512sum(zip) + u"  "_s + zipName + u"\n"_s).toUtf8()));
    return zip;
}

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

QStringList entries(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
}
} // namespace

Q_DECLARE_METATYPE(TestHttpServer::Route)
Q_DECLARE_METATYPE(std::optional<qint64>)

class TestAcquisition : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readsChecksumLists_data();
    void readsChecksumLists();
    void hashesLikeSha512sum();
    void downloadsWithProgress_data();
    void downloadsWithProgress();
    void failedDownloadsLoseNothing_data();
    void failedDownloadsLoseNothing();
    void asksForSizes_data();
    void asksForSizes();
    void installsTheGame_data();
    void installsTheGame();
    void badGamesLoseNothing_data();
    void badGamesLoseNothing();
    void installsAVerifiedEngine_data();
    void installsAVerifiedEngine();
    void badEnginesLoseNothing_data();
    void badEnginesLoseNothing();
};

void TestAcquisition::readsChecksumLists_data()
{
    QTest::addColumn<QString>("list");
    QTest::addColumn<QString>("digest"); // empty: no entry

    QTest::newRow("two blanks") << digestA + u"  "_s + zipName + u"\n"_s << digestA;
    QTest::newRow("upper case, blank, asterisk")
        << digestA.toUpper() + u" *"_s + zipName << digestA;
    QTest::newRow("name only as a prefix")
        << digestA + u"  "_s + zipName + u".sig\n"_s << QString();
    QTest::newRow("name first, digest last") << zipName + u"  "_s + digestA << QString();
    QTest::newRow("first of two lines wins")
        << digestA + u"  "_s + zipName + u"\n"_s + QString(128, u'b') + u"  "_s + zipName
        << digestA;
    QTest::newRow("garbage lines around the entry")
        << u"<html>\n\n   \n*** ***\n"_s + digestA + u"  "_s + zipName + u"\n</html>"_s << digestA;
}

void TestAcquisition::readsChecksumLists()
{
    QFETCH(QString, list);
    QFETCH(QString, digest);
    QCOMPARE(EngineManager::checksumFromList(list, zipName).value_or(QString()), digest);
}

void TestAcquisition::hashesLikeSha512sum()
{
    TestEnv env;
    for (const qint64 size : {qint64(0), qint64(3 * 1024 * 1024 + 17)}) {
        QByteArray content(size, Qt::Uninitialized);
        for (qint64 i = 0; i < size; ++i)
            content[i] = char(i * 7 % 251);
        const QString path = env.root() + u"/blob"_s;
        TestEnv::writeFile(path, content);
        QCOMPARE(EngineManager::sha512(path), sha512sum(path));
    }
    QVERIFY_THROWS_EXCEPTION(PlatformError, EngineManager::sha512(env.root() + u"/missing"_s));
}

void TestAcquisition::downloadsWithProgress_data()
{
    QTest::addColumn<TestHttpServer::Route>("route");
    QTest::addColumn<QByteArray>("expected");
    QTest::addColumn<QString>("finalText"); // a pattern; a fraction is shown with " of "

    const QByteArray whole = payload(2000000);
    const QString speed = u" \u00b7 (Zero|[\\d.]+)\u00a0[KMG]?B/s$"_s;
    QTest::newRow("with length") << body(whole) << whole << u"^2\u00a0MB of 2\u00a0MB"_s + speed;
    TestHttpServer::Route noLength = body(whole);
    noLength.sendLength = false;
    QTest::newRow("without length: no fraction") << noLength << whole << u"^2\u00a0MB"_s + speed;
    TestHttpServer::Route drip = body(whole.left(5000));
    drip.dripBytesPerChunk = 1000;
    drip.dripDelayMs = 20;
    QTest::newRow("slow drip") << drip << whole.left(5000) << u"^5\u00a0KB of 5\u00a0KB"_s + speed;
    QTest::newRow("redirect") << TestHttpServer::redirect("/target") << whole
                              << u"^2\u00a0MB of 2\u00a0MB"_s + speed;
    QTest::newRow("empty body") << body({}) << QByteArray() << u"^Zero\u00a0KB"_s + speed;
}

void TestAcquisition::downloadsWithProgress()
{
    QFETCH(TestHttpServer::Route, route);
    QFETCH(QByteArray, expected);
    QFETCH(QString, finalText);

    TestEnv env;
    TestHttpServer server;
    server.setRoute(u"/target"_s, body(payload(2000000)));
    server.setRoute(u"/game.zip"_s, route);
    const QString dir = TempFolders::make();
    TestEnv::writeFile(dir + u"/game.zip"_s, "an older file that must be replaced");

    AppModel model(AppModel::Config{});
    QList<QVariant> fractions;
    connect(&model, &AppModel::progressChanged, this,
            [&] { fractions.append(model.property("progress")); });
    const QUrl url = server.url(u"/game.zip"_s);
    auto outcome =
        runTask(model.pipeline().download(u"game"_s, u"the game"_s, url, u"game.zip"_s, dir));
    QVERIFY2(outcome.ok(), qPrintable(outcome.errorText()));
    QCOMPARE(TestEnv::readFile(*outcome.value), expected);
    QCOMPARE(entries(dir), QStringList{u"game.zip"_s});
    QCOMPARE(model.state(), AppState::downloading(u"the game"_s));
    // Progress arrives on later turns of the event loop.
    QTRY_VERIFY2(QRegularExpression(finalText).match(model.progressText()).hasMatch(),
                 qPrintable(model.progressText()));
    const bool determinate = finalText.contains(u" of "_s);
    QTRY_COMPARE(model.progress(), determinate ? std::optional(1.0) : std::nullopt);
    for (const QVariant &fraction : fractions)
        QVERIFY(fraction.isNull() || (fraction.toDouble() >= 0 && fraction.toDouble() <= 1));
    QTRY_VERIFY(model.log()->lines().contains(u"Downloading "_s + url.toString()));
}

void TestAcquisition::failedDownloadsLoseNothing_data()
{
    QTest::addColumn<TestHttpServer::Route>("route");
    QTest::addColumn<QString>("message");
    QTest::addColumn<QString>("fault"); // what else goes wrong

    QTest::newRow("404 with a body") << body("<html>no such file</html>", 404)
                                     << u"The server answered with error 404."_s << QString();
    QTest::newRow("500") << body({}, 500) << u"The server answered with error 500."_s << QString();
    TestHttpServer::Route reset = body(payload(2000000));
    reset.resetAfterBytes = 100000;
    QTest::newRow("reset mid-body") << reset << u"~The download failed: "_s << QString();
    TestHttpServer::Route stall = body(payload(1000));
    stall.stall = true;
    QTest::newRow("stall beyond the idle time-out")
        << stall << u"The download stalled: nothing arrived for 0.5 seconds."_s << QString();
    QTest::newRow("redirect loop") << TestHttpServer::redirect("/file.zip")
                                   << u"The download failed: the server redirected it too many "
                                      u"times."_s
                                   << QString();
    QTest::newRow("folder blocked by a file")
        << body("data") << u"~Could not create the folder"_s << u"blockedFolder"_s;
    TestHttpServer::Route drip = body(payload(100000));
    drip.dripBytesPerChunk = 1000;
    drip.dripDelayMs = 50;
    QTest::newRow("cancelled mid-transfer") << drip << u"Cancelled."_s << u"cancel"_s;
    // Twice a length no disk holds, where the download and its unpack share a disk,
    // must not wrap into a small number.
    TestHttpServer::Route endless = body({});
    endless.sendLength = false;
    endless.headers = {{"Content-Length", QByteArray::number(qint64(1) << 62)}};
    QTest::newRow("announced length beyond any disk")
        << endless << u"~There is not enough free space: "_s << u"unpackHere"_s;
}

void TestAcquisition::failedDownloadsLoseNothing()
{
    QFETCH(TestHttpServer::Route, route);
    QFETCH(QString, message);
    QFETCH(QString, fault);

    TestEnv env;
    TestHttpServer server;
    server.setRoute(u"/file.zip"_s, route);
    const QString dir = env.root() + u"/downloads"_s;
    TestEnv::writeFile(fault == u"blockedFolder" ? dir : dir + u"/file.zip"_s, "kept");

    FileDownloader downloader(dir, u"file.zip"_s);
    downloader.setIdleTimeout(std::chrono::milliseconds(500));
    if (fault == u"unpackHere")
        downloader.setUnpackFolder(env.base());
    auto outcome = runTask(downloader.download(server.url(u"/file.zip"_s),
                                               [&](qint64 written, qint64) {
                                                   if (written > 0 && fault == u"cancel")
                                                       downloader.cancel();
                                               }),
                           20000);
    QVERIFY(!outcome.ok());
    compareError(outcome.errorText(), message);
    if (fault == u"cancel")
        QVERIFY_THROWS_EXCEPTION(Cancelled, std::rethrow_exception(outcome.error));
    // Nothing half-written stays behind, and the earlier file is not lost.
    if (fault == u"blockedFolder") {
        QCOMPARE(TestEnv::readFile(dir), QByteArray("kept"));
    } else {
        QCOMPARE(entries(dir), QStringList{u"file.zip"_s});
        QCOMPARE(TestEnv::readFile(dir + u"/file.zip"_s), QByteArray("kept"));
    }
}

void TestAcquisition::asksForSizes_data()
{
    QTest::addColumn<TestHttpServer::Route>("route");
    QTest::addColumn<std::optional<qint64>>("size");

    QTest::newRow("announced length") << body(payload(12345)) << std::optional<qint64>(12345);
    TestHttpServer::Route noLength = body(payload(12345));
    noLength.sendLength = false;
    QTest::newRow("no length") << noLength << std::optional<qint64>();
    QTest::newRow("zero length") << body({}) << std::optional<qint64>();
    QTest::newRow("405") << body(payload(10), 405) << std::optional<qint64>();
    QTest::newRow("nobody listening") << TestHttpServer::Route() << std::optional<qint64>();
}

void TestAcquisition::asksForSizes()
{
    QFETCH(TestHttpServer::Route, route);
    QFETCH(std::optional<qint64>, size);

    QUrl url;
    {
        TestHttpServer server;
        server.setRoute(u"/game.zip"_s, route);
        url = server.url(u"/game.zip"_s);
        if (qstrcmp(QTest::currentDataTag(), "nobody listening") != 0) {
            auto outcome = runTask(RepoDownloader::remoteSize(url, {}));
            QCOMPARE(*outcome.value, size);
            QCOMPARE(server.methods(u"/game.zip"_s), QList<QByteArray>{"HEAD"});
            return;
        }
    }
    auto none = runTask(RepoDownloader::remoteSize(url, {}));
    QVERIFY(none.ok() && !*none.value);
}

void TestAcquisition::installsTheGame_data()
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

void TestAcquisition::installsTheGame()
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
    server.setRoute(u"/master.zip"_s, TestHttpServer::file(env.root() + u"/game.zip"_s));
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
    config.gameArchiveUrl = server.url(u"/master.zip"_s).toString();
    AppModel model(config);
    auto outcome = runVoidTask(model.pipeline().downloadGame());
    QVERIFY2(outcome.ok(), qPrintable(outcome.errorText()));
    // Nothing of the old game, its import record or any leftover stays beside it.
    QCOMPARE(entries(env.base()), QStringList{u"Game"_s});
    const QString installed = env.base() + u"/Game/"_s + projectPath;
    QCOMPARE(TestEnv::readFile(installed), project);
    QVERIFY(QFileInfo(QFileInfo(installed).path() + u"/run.sh"_s).isExecutable());
    QTRY_COMPARE(model.log()->lines().last(), u"Game unpacked."_s);
    QCOMPARE(env.tmpEntries(), QStringList{});
}

void TestAcquisition::badGamesLoseNothing_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("message");

    const QString unpackFailed = u"Unpacking the download failed (bsdtar exit 1)."_s;
    QTest::newRow("no project.godot")
        << u"noProject"_s << u"The downloaded game has no project.godot file."_s;
    QTest::newRow("project too deep")
        << u"tooDeep"_s << u"The downloaded game has no project.godot file."_s;
    QTest::newRow("corrupt zip") << u"corrupt"_s << unpackFailed;
    QTest::newRow("entry escaping with ..") << u"dotdot"_s << unpackFailed;
    QTest::newRow("entry written through a symlink") << u"symlink"_s << unpackFailed;
    QTest::newRow("name that is not UTF-8")
        << u"badName"_s
        << u"The download holds file names that are not valid UTF-8, which this app cannot "
           u"handle, so it was not installed."_s;
    QTest::newRow("404") << u"404"_s << u"The server answered with error 404."_s;
    QTest::newRow("base folder blocked by a file")
        << u"blockedBase"_s << u"~Could not create the folder"_s;
    QTest::newRow("bad address") << u"badAddress"_s << u"Bad game address."_s;
    QTest::newRow("unpacker not installed")
        << u"noUnpacker"_s << u"The unpacker (bsdtar) could not be started: it is not installed."_s;
    QTest::newRow("unpacker not runnable")
        << u"unpackerNotRunnable"_s
        << u"The unpacker (bsdtar) could not be started: Permission denied."_s;
    QTest::newRow("announced size beyond the free space")
        << u"huge"_s << u"~There is not enough free space: 2\u00a0PB is needed on the disk"_s;
    // A real small disk as the temporary folder.
    QTest::newRow("small disk, announced size: refused before writing")
        << u"smallDiskAnnounced"_s << u"~There is not enough free space: 3\u00a0MB is needed"_s;
    QTest::newRow("small disk, unannounced size: the system's reason")
        << u"smallDisk"_s << u"~: No space left on device."_s;
}

void TestAcquisition::badGamesLoseNothing()
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
    const QString mtree = u"#mtree\n./project.godot type=file contents=payload.txt\n"_s;
    if (fault == u"noProject") {
        TestEnv::writeFile(source + u"/Zorbit-master/README.md"_s, "# no project here");
    } else if (fault == u"tooDeep") {
        TestEnv::writeFile(source + u"/a/b/c/d/project.godot"_s, project);
    } else {
        TestEnv::writeFile(source + u"/Zorbit-master/project.godot"_s, project);
    }
    TestEnv::zipFolder(source, zip);
    if (fault == u"corrupt")
        TestEnv::writeFile(zip, "PK\x03\x04 definitely not a complete zip archive");
    else if (fault == u"dotdot")
        TestEnv::zipMtree(mtree +
                              u"../../../outside/escaped.txt type=file contents=payload.txt\n"_s,
                          source, zip);
    else if (fault == u"symlink")
        TestEnv::zipMtree(mtree + u"./link type=link link="_s +
                              QString(outside).replace(u' ', u"\\040"_s) +
                              u"\n./link/escaped.txt type=file contents=payload.txt\n"_s,
                          source, zip);
    else if (fault == u"badName")
        TestEnv::zipMtree(mtree + u"./bad\\377name type=file contents=payload.txt\n"_s, source,
                          zip);
    TestHttpServer::Route route = TestHttpServer::file(zip);
    if (fault == u"404")
        route = body({}, 404);
    if (fault == u"huge") {
        route = body({});
        route.sendLength = false;
        route.headers = {{"Content-Length", "1000000000000000"}};
    }
    if (smallDisk) {
        route = body(QByteArray(3000000, 'z'));
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
    if (fault == u"noUnpacker")
        config.unpacker = env.root() + u"/bin/bsdtar"_s;
    if (fault == u"unpackerNotRunnable") {
        config.unpacker = env.root() + u"/bin/bsdtar"_s;
        TestEnv::writeFile(config.unpacker, "#!/bin/sh\n");
    }
    AppModel model(config);
    auto outcome = runVoidTask(model.pipeline().downloadGame(), 30000);
    QVERIFY(!outcome.ok());
    compareError(outcome.errorText(), message);
    if (fault == u"blockedBase")
        QVERIFY(QFileInfo(env.base()).isFile());
    else
        QVERIFY(previousGameIntact(env));
    QVERIFY(!QFileInfo::exists(env.base() + u"/GameStaging"_s));
    QCOMPARE(entries(outside), QStringList{});
    QCOMPARE(env.tmpEntries(), QStringList{});

    // A destination never set must not turn into the current folder.
    if (fault == u"404") {
        const QString cwd = QDir::currentPath();
        const auto back = qScopeGuard([&] { QDir::setCurrent(cwd); });
        QVERIFY(QDir::setCurrent(outside));
        TestEnv::writeFile(outside + u"/kept"_s, "kept");
        QVERIFY(!removeTree(u"kept"_s));
        {
            const FolderGuard guard{QString()};
        }
        auto nowhere = runVoidTask(RepoDownloader::unzip(
            zip, QString(), model.log(), std::make_shared<ProcessBox>(), config.unpacker));
        QCOMPARE(nowhere.errorText(), u"There is no folder to unpack the download into."_s);
        QCOMPARE(entries(outside), QStringList{u"kept"_s});
    }
}

void TestAcquisition::installsAVerifiedEngine_data()
{
    QTest::addColumn<QStringList>("clutter"); // below Engine/; "name=" a file, "name/" a folder
    QTest::newRow("nothing there") << QStringList{};
    QTest::newRow("files where the build and its staging belong")
        << QStringList{u"4.3-stable="_s, u"4.3-stable.unpacking="_s};
    QTest::newRow("old build and leftovers with names that are not UTF-8")
        << QStringList{u"4.3-stable/"_s, u"4.3-stable.old/"_s, u"4.3-stable.unpacking/"_s};
    QTest::newRow("a file where the engines' folder belongs") << QStringList{u"="_s};
}

void TestAcquisition::installsAVerifiedEngine()
{
    QFETCH(QStringList, clutter);
    TestEnv env;
    TestHttpServer server;
    const QString engines = env.base() + u"/Engine/"_s;
    for (const QString &item : clutter) {
        const QString path = engines + item.chopped(1);
        if (item.endsWith(u'='))
            TestEnv::writeFile(item == u"="_s ? env.base() + u"/Engine"_s : path, "in the way");
        else
            TestEnv::touchRaw(QFile::encodeName(path) + "/bad\xffname");
    }
    serveRelease(env, server);

    AppModel::Config config;
    config.engineEndpoint = server.url(u"/releases/"_s).toString();
    AppModel model(config);
    QList<AppState> states;
    connect(&model, &AppModel::stateChanged, this, [&] { states.append(model.state()); });
    QList<QString> texts;
    connect(&model, &AppModel::progressTextChanged, this,
            [&] { texts.append(model.progressText()); });
    auto outcome = runVoidTask(model.pipeline().downloadEngine(spec));
    QVERIFY2(outcome.ok(), qPrintable(outcome.errorText()));
    QCOMPARE(EngineManager::executable(model.layout(), spec).value_or(QString()),
             engines + u"4.3-stable/Godot_v4.3-stable_linux.x86_64"_s);
    QCOMPARE(states, (QList<AppState>{AppState::downloading(u"checksum for Godot 4.3-stable"_s),
                                      AppState::downloading(u"Godot 4.3-stable"_s),
                                      AppState::settingUp(u"checking the engine download"_s),
                                      AppState::settingUp(u"unpacking the engine"_s)}));
    QTRY_VERIFY(model.log()->lines().contains(u"Checksum OK (SHA-512)."_s));
    // The list is fetched before the archive.
    QCOMPARE(server.hits(listPath), 1);
    QCOMPARE(server.hits(zipPath), 1);
    QCOMPARE(env.tmpEntries(), QStringList{});
    QCOMPARE(entries(engines), QStringList{u"4.3-stable"_s});
}

void TestAcquisition::badEnginesLoseNothing_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("message");
    QTest::addColumn<bool>("archiveFetched");

    QTest::newRow("list 404") << u"list404"_s
                              << u"Could not get the engine checksum list (error 404)."_s << false;
    QTest::newRow("list without the entry")
        << u"noEntry"_s
        << u"The checksum list has no entry for Godot_v4.3-stable_linux.x86_64.zip."_s << false;
    QTest::newRow("digest mismatch")
        << u"mismatch"_s
        << u"The engine download did not match its official checksum, so it was discarded."_s
        << true;
    QTest::newRow("archive 404") << u"zip404"_s << u"The server answered with error 404."_s << true;
    QTest::newRow("corrupt archive with a matching digest")
        << u"corrupt"_s << u"Unpacking the download failed (bsdtar exit 1)."_s << true;
    QTest::newRow("archive without an executable")
        << u"noExecutable"_s << u"The Godot app was not found after unpacking."_s << true;
    QTest::newRow("base folder blocked by a file")
        << u"blockedBase"_s << u"~Could not create the folder"_s << true;
    QTest::newRow("bad endpoint") << u"badEndpoint"_s << u"Bad engine address."_s << false;
    QTest::newRow("list stalls")
        << u"listStall"_s
        << u"Could not get the engine checksum list: nothing arrived for 0.5 seconds."_s << false;
    const QString tooLarge = u"The engine checksum list is larger than 1\u00a0MB, which no real "
                             u"list is, so it was not read."_s;
    QTest::newRow("endless list") << u"listEndless"_s << tooLarge << false;
    QTest::newRow("list announced too large") << u"listLarge"_s << tooLarge << false;
    QTest::newRow("nobody serves the list")
        << u"listRefused"_s << u"Could not get the engine checksum list: Connection refused."_s
        << false;
    QTest::newRow("list redirect loop")
        << u"listLoop"_s
        << u"Could not get the engine checksum list: the server redirected it too many times."_s
        << false;
    // The player's cancel ends any transfer at once, never as a stall.
    QTest::newRow("cancel before the list") << u"cancelBefore"_s << u"Cancelled."_s << false;
    QTest::newRow("cancel while the list stalls") << u"cancelList"_s << u"Cancelled."_s << false;
    QTest::newRow("cancel while the archive drips")
        << u"cancelArchive"_s << u"Cancelled."_s << true;
}

void TestAcquisition::badEnginesLoseNothing()
{
    QFETCH(QString, fault);
    QFETCH(QString, message);
    QFETCH(bool, archiveFetched);

    TestEnv env;
    TestHttpServer server;
    const QString zip = serveRelease(env, server, fault != u"noExecutable");
    if (fault == u"corrupt") {
        TestEnv::writeFile(zip, "PK\x03\x04 this is not really a zip archive at all");
        server.setRoute(listPath, body((sha512sum(zip) + u"  "_s + zipName).toUtf8()));
    }
    if (fault == u"mismatch")
        server.setRoute(listPath, body((digestA + u"  "_s + zipName).toUtf8()));
    if (fault == u"noEntry")
        server.setRoute(listPath, body((digestA + u"  Godot_v4.3-stable_win64.zip"_s).toUtf8()));
    if (fault == u"list404" || fault == u"zip404")
        server.setRoute(fault == u"list404" ? listPath : zipPath, body({}, 404));
    TestHttpServer::Route failing;
    failing.stall = fault == u"listStall" || fault == u"cancelList";
    failing.body = failing.stall ? "x" : QByteArray(2 << 20, ' ');
    // A close-delimited body the server would go on with for ever, as far as the client
    // can tell.
    failing.sendLength = fault != u"listEndless";
    failing.dripBytesPerChunk = fault == u"listEndless" ? 64 * 1024 : 0;
    if (failing.stall || fault == u"listEndless" || fault == u"listLarge")
        server.setRoute(listPath, failing);
    if (fault == u"listLoop")
        server.setRoute(listPath, TestHttpServer::redirect(listPath.toUtf8()));
    if (fault == u"cancelArchive") {
        failing = body(QByteArray(1000000, 'x'));
        failing.dripBytesPerChunk = 1000;
        failing.dripDelayMs = 50;
        server.setRoute(zipPath, failing);
    }

    // An engine installed earlier for the same build must survive any bad download.
    const QString engine = env.base() + u"/Engine/4.3-stable/Godot_v4.3-stable_linux.x86_64"_s;
    if (fault == u"blockedBase")
        TestEnv::writeFile(env.base(), "a file where the base folder should be");
    else
        TestEnv::writeFile(engine, "#!/bin/sh\n", true);

    AppModel::Config config;
    config.engineEndpoint = server.url(u"/releases/"_s).toString();
    config.downloadIdleTimeout = std::chrono::milliseconds(fault == u"cancelList" ? 20000 : 500);
    if (fault == u"badEndpoint")
        config.engineEndpoint = u"no address at all"_s;
    if (fault == u"listRefused") {
        TestHttpServer gone;
        config.engineEndpoint = gone.url(u"/releases/"_s).toString();
    }
    AppModel model(config);
    if (fault == u"cancelBefore")
        model.cancel();
    if (fault.startsWith(u"cancel"))
        QTimer::singleShot(500, &model, &AppModel::cancel);
    auto outcome = runVoidTask(model.pipeline().downloadEngine(spec), 10000);
    QVERIFY(!outcome.ok());
    compareError(outcome.errorText(), message);

    QCOMPARE(server.hits(zipPath) > 0, archiveFetched);
    QCOMPARE(env.tmpEntries(), QStringList{});
    if (fault == u"blockedBase") {
        QVERIFY(QFileInfo(env.base()).isFile());
    } else {
        QCOMPARE(entries(env.base() + u"/Engine"_s), QStringList{u"4.3-stable"_s});
        QCOMPARE(TestEnv::readFile(engine), QByteArray("#!/bin/sh\n"));
    }
    // Everything logged so far has arrived once this line has.
    model.log()->append(u"end"_s);
    QTRY_VERIFY(model.log()->lines().endsWith(u"end"_s));
    QCOMPARE(model.log()->lines().contains(u"Checksum OK (SHA-512)."_s),
             fault == u"corrupt" || fault == u"noExecutable" || fault == u"blockedBase");
}

QTEST_GUILESS_MAIN(TestAcquisition)
#include "tst_acquisition.moc"
