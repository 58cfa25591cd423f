// Downloads, the game's unpack and the engine's verified install, against a real
// loopback server, the real bsdtar and real folders: what arrives, and what a bad
// download must never lose.
#include "acquisition/engineinstall.h"
#include "acquisition/followinghash.h"
#include "acquisition/gameversion.h"
#include "acquisition/repodownloader.h"
#include "app/appmodel.h"
#include "app/pipeline.h"
#include "common/fileops.h"
#include "coro.h"
#include "playworld.h"
#include "testenv.h"
#include "testhttpserver.h"

#include <QDir>
#include <QDirIterator>
#include <QProcess>
#include <QScopeGuard>
#include <QSemaphore>
#include <QTest>
#include <QThreadPool>
#include <QTimer>

using namespace Qt::StringLiterals;
using Route = TestHttpServer::Route;

namespace {
const QString zipName = u"Godot_v4.3-stable_linux.x86_64.zip"_s;
const QString zipPath = u"/releases/4.3-stable/"_s + zipName;
const QString listPath = u"/releases/4.3-stable/SHA512-SUMS.txt"_s;
const EngineSpec spec{u"4.3-stable"_s, zipName, 4};
const QString digestA = QString(128, u'a');
const QByteArray project = "config_version=4\n[application]\nconfig/name=\"Zorbit\"\n";

Route body(const QByteArray &bytes, int status = 200, bool sendLength = true)
{
    return {.status = status, .body = bytes, .sendLength = sendLength};
}

// Announces a length, then sends nothing of it.
Route announcing(qint64 length)
{
    return {.sendLength = false, .headers = {{"Content-Length", QByteArray::number(length)}}};
}

// "~" before an expected message means: contained in the error.
void compareError(const QString &error, const QString &expected)
{
    if (expected.startsWith(u'~'))
        QVERIFY2(error.contains(expected.mid(1)), qPrintable(error));
    else
        QCOMPARE(error, expected);
}

// The log as it stands once everything logged so far has arrived.
QStringList settled(LogStore *log)
{
    log->append(u"end"_s);
    static_cast<void>(QTest::qWaitFor([log] { return log->lines().endsWith(u"end"_s); }));
    return log->lines();
}
} // namespace

class TestAcquisition : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readsChecksumLists()
    {
        const auto read = [](const QString &list) {
            return EngineManager::checksumFromList(list, zipName).value_or(QString());
        };
        QCOMPARE(read(digestA.toUpper() + u" *"_s + zipName), digestA);
        QCOMPARE(read(digestA + u"  "_s + zipName + u".sig\n"_s), QString());
        QCOMPARE(read(zipName + u"  "_s + digestA), QString());
        // The first entry wins, whatever the lines around it.
        QCOMPARE(read(u"<html>\n\n   \n*** ***\n"_s + digestA + u"  "_s + zipName + u"\n"_s +
                      QString(128, u'b') + u"  "_s + zipName),
                 digestA);
    }

    // A git host's archive names its commit in the zip's comment; anything else is
    // known by its own digest.
    void knowsTheGameVersion_data()
    {
        QTest::addColumn<QByteArray>("comment"); // "git": as git archive writes it
        QTest::addColumn<int>("lie");            // added to the comment's length field
        QTest::addColumn<bool>("commit");

        QTest::newRow("git archive") << QByteArray("git") << 0 << true;
        QTest::newRow("none") << QByteArray() << 0 << false;
        QTest::newRow("a commit and a line feed") << QByteArray(40, 'c') + '\n' << 0 << true;
        QTest::newRow("a length longer than the file") << QByteArray(40, 'c') << 1 << false;
        QTest::newRow("a length shorter than the comment") << QByteArray(40, 'c') << -1 << false;
        QTest::newRow("text that is no commit") << QByteArray(40, 'g') << 0 << false;
    }
    void knowsTheGameVersion()
    {
        QFETCH(QByteArray, comment);
        QFETCH(int, lie);
        QFETCH(bool, commit);

        TestEnv env;
        const QString zip = env.root() + u"/game.zip"_s, source = env.root() + u"/source"_s;
        TestEnv::build(source, {u"Zorbit/project.godot=config_version=4"_s});
        QString expected;
        if (comment == "git") {
            const auto git = [&](const QStringList &arguments) {
                const QStringList who{u"-c"_s, u"user.name=t"_s, u"-c"_s, u"user.email=t@t"_s};
                return TestEnv::toolOutput(u"git"_s, who + arguments, source).trimmed();
            };
            git({u"init"_s, u"-q"_s});
            git({u"add"_s, u"."_s});
            git({u"commit"_s, u"-qm"_s, u"x"_s});
            git({u"archive"_s, u"--format=zip"_s, u"-o"_s, zip, u"HEAD"_s});
            expected = git({u"rev-parse"_s, u"HEAD"_s});
        } else {
            TestEnv::zipFolder(source, zip);
            QByteArray bytes = TestEnv::readFile(zip);
            // The end record is the last 22 bytes; its last two give the comment's length.
            const int length = int(comment.size()) + lie;
            bytes[bytes.size() - 2] = char(length & 0xff);
            bytes[bytes.size() - 1] = char(length >> 8);
            TestEnv::writeFile(zip, bytes + comment);
            expected = QString::fromLatin1(comment.trimmed());
        }
        if (!commit)
            expected = u"sha256:"_s + TestEnv::toolOutput(u"sha256sum"_s, {zip}).left(64);
        QCOMPARE(GameVersion::identify(zip), expected);
    }

    // Asked with HEAD only; a size that cannot be had counts nothing.
    void estimatesTheDownloadSize_data()
    {
        QTest::addColumn<Route>("engine");
        QTest::addColumn<Route>("game");
        QTest::addColumn<QString>("text"); // empty: none

        const Route game = body(QByteArray(500'000, 'g'));
        QTest::newRow("both") << body(QByteArray(2'000'000, 'e')) << game << u"about 2.5\u00a0MB"_s;
        QTest::newRow("game only, engine 404") << body({}, 404) << game << u"about 500\u00a0KB"_s;
        QTest::newRow("engine only, game without a length")
            << body(QByteArray(2'000'000, 'e')) << body(QByteArray(10, 'g'), 200, false)
            << u"about 2\u00a0MB"_s;
    }
    void estimatesTheDownloadSize()
    {
        QFETCH(Route, engine);
        QFETCH(Route, game);
        QFETCH(QString, text);

        TestEnv env;
        TestHttpServer server;
        const QString engineZip = u"/releases/3.5.3-stable/Godot_v3.5.3-stable_x11.64.zip"_s;
        server.setRoute(engineZip, engine);
        server.setRoute(u"/master.zip"_s, game);
        AppModel model({.engineEndpoint = server.url(u"/releases/"_s).toString(),
                        .gameArchiveUrl = server.url(u"/master.zip"_s).toString()});
        QVERIFY(runVoidTask(model.loadSizeEstimate()).ok());
        QCOMPARE(model.downloadSizeText().value_or(QString()), text);
        QCOMPARE(server.methods(u"/master.zip"_s), QList<QByteArray>{"HEAD"});
        QCOMPARE(server.methods(engineZip), QList<QByteArray>{"HEAD"});
    }

    void installsTheGame_data()
    {
        QTest::addColumn<QString>("fault");   // in the zip, on the disk or in the configuration
        QTest::addColumn<Route>("route");     // a file's route serves the game's zip
        QTest::addColumn<QString>("message"); // empty: installed

        const Route zip = TestHttpServer::file(u"game.zip"_s);
        const QString unpackFailed = u"Unpacking the download failed (bsdtar exit 1)."_s;
        const QString noSpace = u"~There is not enough free space: "_s;
        const Route stall{.body = QByteArray(1000, 'x'), .stall = true};
        QTest::newRow("project at the root of the zip") << u"rootProject"_s << zip << QString();
        QTest::newRow("names that are not UTF-8 everywhere") << u"badNames"_s << zip << QString();
        QTest::newRow("files where Game and GameStaging belong") << u"files"_s << zip << QString();
        QTest::newRow("no project.godot")
            << u"noProject"_s << zip << u"The downloaded game has no project.godot file."_s;
        QTest::newRow("entry escaping with ..") << u"dotdot"_s << zip << unpackFailed;
        QTest::newRow("entry written through a symlink") << u"symlink"_s << zip << unpackFailed;
        QTest::newRow("name that is not UTF-8")
            << u"badName"_s << zip
            << u"The download holds file names that are not valid UTF-8, which this app cannot "
               u"handle, so it was not installed."_s;
        QTest::newRow("404 with a body") << QString() << body("<html>no such file</html>", 404)
                                         << u"The server answered with error 404."_s;
        QTest::newRow("stall beyond the idle time-out")
            << QString() << stall << u"The download stalled: nothing arrived for 0.5 seconds."_s;
        // A body without a length ends where the connection closes, and Qt 6.4 may take
        // a close between two chunks for the last chunk: only the archive's end tells.
        const QString cut =
            u"The download failed: the connection closed before the whole file arrived."_s;
        QTest::newRow("closed between two chunks") << QString()
                                                   << Route{.filePath = zip.filePath,
                                                            .chunked = true,
                                                            .dripBytesPerChunk = 100,
                                                            .closeAfterBytes = 200}
                                                   << cut;
        QTest::newRow("closed early, no length")
            << QString()
            << Route{.filePath = zip.filePath, .sendLength = false, .closeAfterBytes = 200} << cut;
        QTest::newRow("redirect loop")
            << QString() << TestHttpServer::redirect("/master.zip")
            << u"The download failed: the server redirected it too many times."_s;
        // The download and its unpack share a disk: twice the length is needed, and
        // twice a length beyond any disk must not wrap into a small number.
        QTest::newRow("announced size beyond the free space")
            << QString() << announcing(1000000000000000) << noSpace + u"2\u00a0PB is needed"_s;
        QTest::newRow("announced size beyond any disk")
            << QString() << announcing(qint64(1) << 62) << noSpace;
        QTest::newRow("base folder blocked by a file")
            << u"blockedBase"_s << zip << u"~Could not create the folder"_s;
        QTest::newRow("bad address") << u"badAddress"_s << zip << u"Bad game address."_s;
        QTest::newRow("unpacker not installed")
            << u"noUnpacker"_s << zip
            << u"The unpacker (bsdtar) could not be started: it is not installed."_s;
        QTest::newRow("unpacker not runnable")
            << u"unpackerNotRunnable"_s << zip
            << u"The unpacker (bsdtar) could not be started: Permission denied."_s;
        // A real small disk as the temporary folder, a size it could not tell before.
        QTest::newRow("small disk: the system's reason")
            << u"smallDisk"_s << body(QByteArray(3000000, 'z'), 200, false)
            << u"~: No space left on device."_s;
    }
    void installsTheGame()
    {
        QFETCH(QString, fault);
        QFETCH(Route, route);
        QFETCH(QString, message);

        TestEnv env;
        if (fault == u"smallDisk" &&
            QProcess::execute(u"mount"_s, {u"-t"_s, u"tmpfs"_s, u"-o"_s, u"size=1m"_s, u"tmpfs"_s,
                                           env.tmp()}) != 0)
            QSKIP("mounting a small tmpfs needs root and a system that allows mounts here");
        const auto unmount = qScopeGuard([&] {
            if (fault == u"smallDisk")
                QProcess::execute(u"umount"_s, {u"--lazy"_s, env.tmp()});
        });
        TestHttpServer server;
        const QString zip = env.root() + u"/game.zip"_s, source = env.root() + u"/source"_s;
        const QString outside = env.root() + u"/outside"_s, base = env.base();
        const QString projectPath =
            fault == u"rootProject" ? u"project.godot"_s : u"Zorbit-master/project.godot"_s;
        TestEnv::build(source,
                       {u"payload.txt=payload"_s, QFileInfo(projectPath).path() + u"/run.sh*"_s,
                        fault == u"noProject" ? u"Zorbit-master/README.md"_s
                                              : projectPath + u'=' + QString::fromUtf8(project)});
        TestEnv::zipFolder(source, zip);
        QDir().mkpath(outside);
        const QString mtree = u"#mtree\n./project.godot type=file contents=payload.txt\n"_s;
        const QString entry = u" type=file contents=payload.txt\n"_s;
        if (fault == u"dotdot")
            TestEnv::zipMtree(mtree + u"../../../outside/escaped.txt"_s + entry, source, zip);
        else if (fault == u"symlink")
            TestEnv::zipMtree(mtree + u"./link type=link link="_s +
                                  QString(outside).replace(u' ', u"\\040"_s) +
                                  u"\n./link/escaped.txt"_s + entry,
                              source, zip);
        else if (fault == u"badName")
            TestEnv::zipMtree(mtree + u"./bad\\377name"_s + entry, source, zip);
        if (!route.filePath.isEmpty())
            route.filePath = zip;
        server.setRoute(u"/master.zip"_s, route);
        // An installed, imported game that a bad download must leave as it was.
        if (fault == u"blockedBase")
            TestEnv::writeFile(base, "a file where the base folder should be");
        else
            TestEnv::build(base, {u"Game/Old-master/project.godot=old"_s, u"imported.marker"_s});
        if (fault == u"badNames") {
            for (const QString &folder :
                 {u"/Game/Old-master"_s, u"/GameStaging/x"_s, u"/Game.old"_s})
                TestEnv::touchRaw(QFile::encodeName(base + folder) + "/bad\xff\xfename");
        } else if (fault == u"files") {
            QDir(base + u"/Game"_s).removeRecursively();
            TestEnv::build(base, {u"Game=a file"_s, u"GameStaging=a file"_s});
        }

        AppModel::Config config;
        config.gameArchiveUrl = fault == u"badAddress" ? u"::not an address::"_s
                                                       : server.url(u"/master.zip"_s).toString();
        config.downloadIdleTimeout = std::chrono::milliseconds(500);
        if (fault.startsWith(u"noUnpacker"_s) || fault.startsWith(u"unpackerNot"_s))
            config.unpacker = env.root() + u"/bin/bsdtar"_s;
        if (fault == u"unpackerNotRunnable")
            TestEnv::writeFile(config.unpacker, "#!/bin/sh\n");
        AppModel model(config);
        auto outcome = runVoidTask(model.pipeline().downloadGame(), 30000);
        compareError(outcome.errorText(), message);
        if (message.isEmpty()) {
            // Nothing of the old game, its import record or any leftover stays beside it;
            // the new game's version does.
            QCOMPARE(TestEnv::entries(base), (QStringList{u"Game"_s, u"game.version"_s}));
            const QString digest = TestEnv::toolOutput(u"sha256sum"_s, {zip}).left(64);
            QCOMPARE(GameVersion::read(model.layout()), u"sha256:"_s + digest);
            const QString installed = base + u"/Game/"_s + projectPath;
            QCOMPARE(TestEnv::readFile(installed), project);
            QVERIFY(QFileInfo(QFileInfo(installed).path() + u"/run.sh"_s).isExecutable());
            QVERIFY(settled(model.log()).contains(u"Game version: "_s + digest.left(7)));
        } else if (fault == u"blockedBase") {
            QVERIFY(QFileInfo(base).isFile());
        } else {
            QCOMPARE(TestEnv::entries(base), (QStringList{u"Game"_s, u"imported.marker"_s}));
            QCOMPARE(TestEnv::readFile(base + u"/Game/Old-master/project.godot"_s),
                     QByteArray("old"));
        }
        QCOMPARE(TestEnv::entries(outside), QStringList{});
        QCOMPARE(env.tmpEntries(), QStringList{});
    }

    // A destination never set must not turn into the current folder.
    void neverUsesTheCurrentFolder()
    {
        TestEnv env;
        const QString cwd = QDir::currentPath();
        const auto back = qScopeGuard([&] { QDir::setCurrent(cwd); });
        QVERIFY(QDir::setCurrent(env.tmp()));
        TestEnv::build(env.tmp(), {u"kept"_s, u"source/x"_s});
        TestEnv::zipFolder(env.tmp() + u"/source"_s, env.root() + u"/x.zip"_s);
        QVERIFY(!removeTree(u"kept"_s));
        FolderGuard{QString()};
        LogStore log;
        auto nowhere = runVoidTask(RepoDownloader::unzip(env.root() + u"/x.zip"_s, QString(), &log,
                                                         std::make_shared<ProcessBox>(),
                                                         AppModel::Config().unpacker));
        QCOMPARE(nowhere.errorText(), u"There is no folder to unpack the download into."_s);
        QCOMPARE(TestEnv::entries(env.tmp()), (QStringList{u"kept"_s, u"source"_s}));
    }

    void installsTheEngine_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<Route>("list");      // status 0: the release's own
        QTest::addColumn<QString>("message"); // empty: installed
        QTest::addColumn<bool>("archiveFetched");

        const QString listFailed = u"Could not get the engine checksum list"_s;
        const QString tooLarge = u"The engine checksum list is larger than 1\u00a0MB, which no "
                                 u"real list is, so it was not read."_s;
        const Route stall{.body = "x", .stall = true};
        // A close-delimited body the server would go on with for ever, as far as the
        // client can tell.
        const Route endless{
            .body = QByteArray(2 << 20, ' '), .sendLength = false, .dripBytesPerChunk = 64 * 1024};
        const Route own = body({}, 0);
        QTest::newRow("far larger than the hash may lag") << u"big"_s << own << QString() << true;
        // A busy machine's order: the file is renamed before its hash has read a byte.
        QTest::newRow("downloaded before the hash starts")
            << u"hashHeldBack"_s << own << QString() << true;
        QTest::newRow("files where the build and its staging belong")
            << u"files"_s << own << QString() << true;
        QTest::newRow("old build and leftovers with names that are not UTF-8")
            << u"badNames"_s << own << QString() << true;
        QTest::newRow("list 404") << QString() << body({}, 404) << listFailed + u" (error 404)."_s
                                  << false;
        QTest::newRow("list without the entry")
            << QString() << body((digestA + u"  Godot_v4.3-stable_win64.zip"_s).toUtf8())
            << u"The checksum list has no entry for Godot_v4.3-stable_linux.x86_64.zip."_s << false;
        QTest::newRow("digest mismatch")
            << QString() << body((digestA + u"  "_s + zipName).toUtf8())
            << u"The engine download did not match its official checksum, so it was discarded."_s
            << true;
        QTest::newRow("list stalls")
            << QString() << stall << listFailed + u": nothing arrived for 0.5 seconds."_s << false;
        QTest::newRow("endless list") << QString() << endless << tooLarge << false;
        QTest::newRow("list announced too large")
            << QString() << body(QByteArray(2 << 20, ' ')) << tooLarge << false;
        // The player's cancel ends any transfer at once, never as a stall.
        QTest::newRow("cancel while the list stalls")
            << u"cancel"_s << stall << u"Cancelled."_s << false;
        QTest::newRow("corrupt archive with a matching digest")
            << u"corrupt"_s << own << u"Unpacking the download failed (bsdtar exit 1)."_s << true;
        QTest::newRow("archive without an executable")
            << u"noExecutable"_s << own << u"The Godot app was not found after unpacking."_s
            << true;
        QTest::newRow("base folder blocked by a file")
            << u"blockedBase"_s << own << u"~Could not create the folder"_s << true;
        QTest::newRow("bad endpoint")
            << u"badEndpoint"_s << own << u"Bad engine address."_s << false;
    }
    void installsTheEngine()
    {
        QFETCH(QString, fault);
        QFETCH(Route, list);
        QFETCH(QString, message);
        QFETCH(bool, archiveFetched);

        TestEnv env;
        TestHttpServer server;
        // A big one makes the download wait for its hash now and then.
        PlayWorld{.engine = fault == u"noExecutable" ? QString() : u"godot.sh"_s,
                  .enginePadding = fault == u"big" ? 60'000'000 : 0}
            .serve(server, env.root());
        if (fault == u"corrupt") {
            TestEnv::writeFile(env.root() + u'/' + zipName,
                               "PK\x03\x04 this is not really a zip archive at all");
            // sha512sum's own line is the list's.
            const QString sums = TestEnv::toolOutput(u"sha512sum"_s, {zipName}, env.root());
            server.setRoute(listPath, body(sums.toUtf8()));
        }
        if (list.status)
            server.setRoute(listPath, list);
        // An engine installed earlier for the same build must survive any bad download.
        const QString engines = env.base() + u"/Engine/"_s;
        const QString engine = engines + u"4.3-stable/Godot_v4.3-stable_linux.x86_64"_s;
        if (fault == u"blockedBase")
            TestEnv::writeFile(env.base(), "a file where the base folder should be");
        else if (fault == u"files")
            TestEnv::build(engines, {u"4.3-stable"_s, u"4.3-stable.unpacking"_s});
        else if (fault == u"badNames")
            for (const QString &folder :
                 {u"4.3-stable"_s, u"4.3-stable.old"_s, u"4.3-stable.unpacking"_s})
                TestEnv::touchRaw(QFile::encodeName(engines + folder) + "/bad\xffname");
        else if (!message.isEmpty())
            TestEnv::writeFile(engine, "#!/bin/sh\n", true);

        AppModel::Config config;
        config.engineEndpoint = fault == u"badEndpoint" ? u"no address at all"_s
                                                        : server.url(u"/releases/"_s).toString();
        config.downloadIdleTimeout = std::chrono::milliseconds(fault == u"cancel" ? 20000 : 500);
        AppModel model(config);
        if (fault == u"cancel")
            QTimer::singleShot(500, &model, &AppModel::cancel);
        QSemaphore held;
        QTimer landed;
        QThreadPool *hashing = FollowingHash::threads();
        const int threads = hashing->maxThreadCount();
        const auto release = qScopeGuard([&] {
            if (landed.isActive())
                held.release();
            if (fault == u"hashHeldBack")
                hashing->waitForDone(); // its waiter holds `held`
            hashing->setMaxThreadCount(threads);
        });
        if (fault == u"hashHeldBack") {
            // Its one thread waits until the download has been put in place.
            hashing->setMaxThreadCount(1);
            hashing->start([&held] { held.acquire(); });
            connect(&landed, &QTimer::timeout, this, [&] {
                if (QDirIterator(env.tmp(), {zipName}, QDir::Files, QDirIterator::Subdirectories)
                        .hasNext()) {
                    landed.stop();
                    held.release();
                }
            });
            landed.start(5);
        }
        auto outcome = runVoidTask(model.pipeline().downloadEngine(spec), 10000);
        compareError(outcome.errorText(), message);
        QCOMPARE(server.hits(zipPath) > 0, archiveFetched);
        QCOMPARE(env.tmpEntries(), QStringList{});
        if (fault == u"blockedBase") {
            QVERIFY(QFileInfo(env.base()).isFile());
        } else {
            QCOMPARE(TestEnv::entries(engines), QStringList{u"4.3-stable"_s});
            QCOMPARE(TestEnv::readFile(engine), message.isEmpty()
                                                    ? TestEnv::readFile(fakeEngine(u"godot.sh"_s))
                                                    : "#!/bin/sh\n");
            QCOMPARE(EngineManager::executable(model.layout(), spec).value_or(QString()), engine);
        }
        QCOMPARE(settled(model.log()).contains(u"Checksum OK (SHA-512)."_s),
                 archiveFetched && !message.contains(u"checksum"_s));
    }
};

QTEST_GUILESS_MAIN(TestAcquisition)
#include "tst_acquisition.moc"
