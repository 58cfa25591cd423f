#include "acquisition/engineinstall.h"
#include "app/appmodel.h"
#include "app/pipeline.h"
#include "coro.h"
#include "process/processfailure.h"
#include "testenv.h"
#include "testhttpserver.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QNetworkReply>
#include <QTest>
#include <QTimer>

using namespace Qt::StringLiterals;

namespace {
const QString version = u"4.3-stable"_s;
const QString zipName = u"Godot_v4.3-stable_linux.x86_64.zip"_s;
const EngineSpec spec{version, zipName, 4};
const QString digestA = QString(128, u'a');

// A release folder as the engine project publishes it: the zip and its checksum list.
struct Release
{
    QString zip;
    QString digest;
};

Release makeRelease(const TestEnv &env, bool withExecutable = true)
{
    const QString folder = env.root() + u"/release-src"_s;
    QDir(folder).removeRecursively();
    TestEnv::writeFile(folder + u"/Godot_v4.3-stable_linux.x86_64"_s,
                       "#!/bin/sh\necho fake godot\n", withExecutable);
    TestEnv::writeFile(folder + u"/README.txt"_s, "not the engine");
    const QString zip = env.root() + u"/release/"_s + zipName;
    TestEnv::zipFolder(folder, zip);
    const QString digest = TestEnv::toolOutput(u"sha512sum"_s, {zip}).section(u' ', 0, 0).trimmed();
    return {zip, digest};
}

void serveRelease(TestHttpServer &server, const QString &zipPath, const QByteArray &sums)
{
    server.setRoute(u"/releases/4.3-stable/"_s + zipName, TestHttpServer::file(zipPath));
    TestHttpServer::Route list;
    list.body = sums;
    server.setRoute(u"/releases/4.3-stable/SHA512-SUMS.txt"_s, list);
}

AppModel::Config configFor(const TestHttpServer &server)
{
    AppModel::Config config;
    config.engineEndpoint = server.url(u"/releases/"_s).toString();
    return config;
}
} // namespace

class TestEngineInstall : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readsChecksumLists_data();
    void readsChecksumLists();
    void hashesLikeSha512sum_data();
    void hashesLikeSha512sum();
    void installsAVerifiedEngine_data();
    void installsAVerifiedEngine();
    void refusesBadEngineDownloads_data();
    void refusesBadEngineDownloads();
};

void TestEngineInstall::readsChecksumLists_data()
{
    QTest::addColumn<QString>("list");
    QTest::addColumn<QString>("digest"); // empty: no entry

    const QString upper = digestA.toUpper();
    QTest::newRow("two blanks") << digestA + u"  "_s + zipName + u"\n"_s << digestA;
    QTest::newRow("upper case, blank, asterisk") << upper + u" *"_s + zipName << digestA;
    QTest::newRow("name only as a prefix")
        << digestA + u"  "_s + zipName + u".sig\n"_s << QString();
    QTest::newRow("name first, digest last") << zipName + u"  "_s + digestA << QString();
    QTest::newRow("first of two lines wins")
        << digestA + u"  "_s + zipName + u"\n"_s + QString(128, u'b') + u"  "_s + zipName
        << digestA;
    QTest::newRow("garbage lines around the entry")
        << u"<html>\n\n   \n*** ***\nnonsense\n"_s + digestA + u"  "_s + zipName + u"\n</html>"_s
        << digestA;
    QTest::newRow("other builds only")
        << digestA + u"  Godot_v4.3-stable_win64.exe.zip\n"_s << QString();
    QTest::newRow("empty list") << QString() << QString();
}

void TestEngineInstall::readsChecksumLists()
{
    QFETCH(QString, list);
    QFETCH(QString, digest);
    QCOMPARE(EngineManager::checksumFromList(list, zipName).value_or(QString()), digest);
}

void TestEngineInstall::hashesLikeSha512sum_data()
{
    QTest::addColumn<qint64>("size");
    QTest::newRow("empty") << qint64(0);
    QTest::newRow("small") << qint64(3);
    QTest::newRow("exactly one chunk") << qint64(1024 * 1024);
    QTest::newRow("across chunks") << qint64(3 * 1024 * 1024 + 17);
}

void TestEngineInstall::hashesLikeSha512sum()
{
    QFETCH(qint64, size);
    TestEnv env;
    QByteArray content(size, Qt::Uninitialized);
    for (qint64 i = 0; i < size; ++i)
        content[i] = char(i * 7 % 251);
    const QString path = env.root() + u"/blob"_s;
    TestEnv::writeFile(path, content);
    const QString expected = TestEnv::toolOutput(u"sha512sum"_s, {path}).section(u' ', 0, 0);
    QCOMPARE(EngineManager::sha512(path), expected);
    QVERIFY_THROWS_EXCEPTION(PlatformError, EngineManager::sha512(env.root() + u"/missing"_s));
}

void TestEngineInstall::installsAVerifiedEngine_data()
{
    QTest::addColumn<QStringList>("clutter"); // below Engine/; "name=" a file, "name/" a folder
    QTest::newRow("nothing there") << QStringList{};
    QTest::newRow("files where the build and its staging belong")
        << QStringList{u"4.3-stable="_s, u"4.3-stable.unpacking="_s};
    QTest::newRow("old build and leftovers with names that are not UTF-8")
        << QStringList{u"4.3-stable/"_s, u"4.3-stable.old/"_s, u"4.3-stable.unpacking/"_s};
    QTest::newRow("a file where the engines' folder belongs") << QStringList{u"="_s};
}

void TestEngineInstall::installsAVerifiedEngine()
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
    const Release release = makeRelease(env);
    serveRelease(server, release.zip, (release.digest.toUpper() + u" *"_s + zipName).toUtf8());

    AppModel model(configFor(server));
    QList<AppState> states;
    connect(&model, &AppModel::stateChanged, this, [&] { states.append(model.state()); });
    auto outcome = runVoidTask(model.pipeline().downloadEngine(spec));
    QVERIFY2(outcome.ok(), qPrintable(outcome.errorText()));

    const auto exe = EngineManager::executable(model.layout(), spec);
    QVERIFY(exe);
    QCOMPARE(*exe, env.base() + u"/Engine/4.3-stable/Godot_v4.3-stable_linux.x86_64"_s);
    QCOMPARE(states, (QList<AppState>{AppState::downloading(u"checksum for Godot 4.3-stable"_s),
                                      AppState::downloading(u"Godot 4.3-stable"_s),
                                      AppState::settingUp(u"checking the engine download"_s),
                                      AppState::settingUp(u"unpacking the engine"_s)}));
    QTRY_VERIFY(model.log()->lines().contains(u"Checksum OK (SHA-512)."_s));
    // The list is fetched before the archive.
    QCOMPARE(server.hits(u"/releases/4.3-stable/SHA512-SUMS.txt"_s), 1);
    QCOMPARE(server.hits(u"/releases/4.3-stable/"_s + zipName), 1);
    QCOMPARE(env.tmpEntries(), QStringList{});
    QCOMPARE(QDir(env.base() + u"/Engine"_s).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
             QStringList{version});
}

void TestEngineInstall::refusesBadEngineDownloads_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("message"); // "~" starts a part that must be contained
    QTest::addColumn<bool>("archiveFetched");

    QTest::newRow("list 404") << u"list404"_s
                              << u"Could not get the engine checksum list (error 404)."_s << false;
    QTest::newRow("list 500") << u"list500"_s
                              << u"Could not get the engine checksum list (error 500)."_s << false;
    QTest::newRow("list without the entry")
        << u"noEntry"_s
        << u"The checksum list has no entry for Godot_v4.3-stable_linux.x86_64.zip."_s << false;
    QTest::newRow("digest mismatch")
        << u"mismatch"_s
        << u"The engine download did not match its official checksum, so it was discarded."_s
        << true;
    QTest::newRow("archive 404") << u"zip404"_s << u"The server answered with error 404."_s << true;
    QTest::newRow("archive reset mid-body") << u"zipReset"_s << u"~The download failed: "_s << true;
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
    const QString tooLarge = u"The engine checksum list is larger than 1 MB, which no real list "
                             u"is, so it was not read."_s;
    QTest::newRow("endless list") << u"listEndless"_s << tooLarge << false;
    QTest::newRow("list announced too large") << u"listLarge"_s << tooLarge << false;
    QTest::newRow("nobody serves the list")
        << u"listRefused"_s << u"Could not get the engine checksum list: Connection refused."_s
        << false;
    // The player's cancel ends any transfer at once, never as a stall.
    QTest::newRow("cancel before the list") << u"cancelBefore"_s << u"Cancelled."_s << false;
    QTest::newRow("cancel while the list stalls") << u"cancelList"_s << u"Cancelled."_s << false;
    QTest::newRow("cancel while the archive drips")
        << u"cancelArchive"_s << u"Cancelled."_s << true;
    QTest::newRow("list redirect loop")
        << u"listLoop"_s
        << u"Could not get the engine checksum list: the server redirected it too many times."_s
        << false;
}

void TestEngineInstall::refusesBadEngineDownloads()
{
    QFETCH(QString, fault);
    QFETCH(QString, message);
    QFETCH(bool, archiveFetched);

    TestEnv env;
    TestHttpServer server;
    Release release = makeRelease(env, fault != u"noExecutable");
    QByteArray sums = (release.digest + u"  "_s + zipName + u"\n"_s).toUtf8();
    if (fault == u"corrupt") {
        TestEnv::writeFile(release.zip, "PK\x03\x04 this is not really a zip archive at all");
        sums = (TestEnv::toolOutput(u"sha512sum"_s, {release.zip}).section(u' ', 0, 0) + u"  "_s +
                zipName)
                   .toUtf8();
    }
    if (fault == u"mismatch")
        sums = (digestA + u"  "_s + zipName).toUtf8();
    if (fault == u"noEntry")
        sums = (release.digest + u"  Godot_v4.3-stable_macos.universal.zip\n"_s).toUtf8();
    serveRelease(server, release.zip, sums);
    TestHttpServer::Route failing;
    const QString list = u"/releases/4.3-stable/SHA512-SUMS.txt"_s;
    if (fault == u"list404" || fault == u"list500") {
        failing.status = fault == u"list404" ? 404 : 500;
        server.setRoute(list, failing);
    }
    const bool stall = fault == u"listStall" || fault == u"cancelList";
    if (stall || QStringList{u"listEndless"_s, u"listLarge"_s, u"listLoop"_s}.contains(fault)) {
        failing.body = (stall ? QByteArray() : QByteArray(2 << 20, ' ')) + sums;
        failing.stall = stall;
        // A close-delimited body the server would go on with for ever, as far as
        // the client can tell.
        failing.sendLength = fault != u"listEndless";
        failing.dripBytesPerChunk = fault == u"listEndless" ? 64 * 1024 : 0;
        server.setRoute(list,
                        fault == u"listLoop" ? TestHttpServer::redirect(list.toUtf8()) : failing);
    }
    if (fault == u"zip404") {
        failing.status = 404;
        server.setRoute(u"/releases/4.3-stable/"_s + zipName, failing);
    }
    if (fault == u"cancelArchive") {
        failing.body = QByteArray(1000000, 'x');
        failing.dripBytesPerChunk = 1000;
        failing.dripDelayMs = 50;
        server.setRoute(u"/releases/4.3-stable/"_s + zipName, failing);
    }
    if (fault == u"zipReset") {
        failing.body = QByteArray(3000000, 'x');
        failing.resetAfterBytes = 50000;
        server.setRoute(u"/releases/4.3-stable/"_s + zipName, failing);
    }

    // An engine installed earlier for the same build must survive any bad download.
    const QString engine = env.base() + u"/Engine/4.3-stable"_s;
    if (fault == u"blockedBase") {
        QDir(env.base()).removeRecursively();
        TestEnv::writeFile(env.base(), "a file where the base folder should be");
    } else {
        TestEnv::writeFile(engine + u"/Godot_v4.3-stable_linux.x86_64"_s, "#!/bin/sh\n", true);
    }

    AppModel::Config config = configFor(server);
    config.downloadIdleTimeout = std::chrono::milliseconds(500);
    if (fault == u"badEndpoint")
        config.engineEndpoint = u"no address at all"_s;
    if (fault == u"listRefused") {
        TestHttpServer gone;
        config.engineEndpoint = gone.url(u"/releases/"_s).toString();
    }
    if (fault == u"cancelList")
        config.downloadIdleTimeout = std::chrono::milliseconds(20000);
    AppModel model(config);
    if (fault == u"cancelBefore")
        model.cancel();
    QTimer::singleShot(500, &model, [&] {
        if (fault.startsWith(u"cancel"))
            model.cancel();
    });
    auto outcome = runVoidTask(model.pipeline().downloadEngine(spec), 10000);
    QVERIFY(!outcome.ok());
    if (message.startsWith(u'~'))
        QVERIFY2(outcome.errorText().contains(message.mid(1)), qPrintable(outcome.errorText()));
    else
        QCOMPARE(outcome.errorText(), message);

    QCOMPARE(server.hits(u"/releases/4.3-stable/"_s + zipName) > 0, archiveFetched);
    QCOMPARE(env.tmpEntries(), QStringList{});
    if (fault == u"blockedBase") {
        QVERIFY(QFileInfo(env.base()).isFile());
    } else {
        QCOMPARE(QDir(env.base() + u"/Engine"_s).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
                 QStringList{version});
        QCOMPARE(TestEnv::readFile(engine + u"/Godot_v4.3-stable_linux.x86_64"_s),
                 QByteArray("#!/bin/sh\n"));
    }
    // Everything logged so far has arrived once this line has.
    model.log()->append(u"end"_s);
    QTRY_VERIFY(model.log()->lines().endsWith(u"end"_s));
    QCOMPARE(model.log()->lines().contains(u"Checksum OK (SHA-512)."_s),
             fault == u"corrupt" || fault == u"noExecutable" || fault == u"blockedBase");
}

QTEST_GUILESS_MAIN(TestEngineInstall)
#include "tst_engineinstall.moc"
