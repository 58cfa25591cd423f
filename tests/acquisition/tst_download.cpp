#include "acquisition/filedownloader.h"
#include "acquisition/repodownloader.h"
#include "acquisition/tempfolders.h"
#include "app/appmodel.h"
#include "app/pipeline.h"
#include "coro.h"
#include "process/processfailure.h"
#include "testenv.h"
#include "testhttpserver.h"

#include <QDir>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {
QByteArray payload(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char('a' + i % 26);
    return bytes;
}

// The error a failed task threw, rethrown as what it is.
template <typename T>
const PlatformError *platformError(const Outcome<T> &outcome, std::exception_ptr &keep)
{
    keep = outcome.error;
    try {
        std::rethrow_exception(keep);
    } catch (const PlatformError &e) {
        return &e;
    } catch (...) {
        return nullptr;
    }
}
} // namespace

Q_DECLARE_METATYPE(TestHttpServer::Route)
Q_DECLARE_METATYPE(std::optional<qint64>)

class TestDownload : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void downloadsWholeFiles_data();
    void downloadsWholeFiles();
    void failuresLeaveNoFile_data();
    void failuresLeaveNoFile();
    void cancelEndsWithCancelledError();
    void modelShowsProgress_data();
    void modelShowsProgress();
    void remoteSize_data();
    void remoteSize();
};

void TestDownload::downloadsWholeFiles_data()
{
    QTest::addColumn<TestHttpServer::Route>("route");
    QTest::addColumn<QByteArray>("expected");

    const QByteArray body = payload(300000);
    TestHttpServer::Route plain;
    plain.body = body;
    QTest::newRow("with length") << plain << body;
    TestHttpServer::Route noLength = plain;
    noLength.sendLength = false;
    QTest::newRow("without length") << noLength << body;
    TestHttpServer::Route drip = plain;
    drip.body = body.left(5000);
    drip.dripBytesPerChunk = 1000;
    drip.dripDelayMs = 20;
    QTest::newRow("slow drip") << drip << body.left(5000);
    QTest::newRow("redirect") << TestHttpServer::redirect("/target") << body;
    TestHttpServer::Route empty;
    QTest::newRow("empty body") << empty << QByteArray();
}

void TestDownload::downloadsWholeFiles()
{
    QFETCH(TestHttpServer::Route, route);
    QFETCH(QByteArray, expected);

    TestEnv env;
    TestHttpServer server;
    TestHttpServer::Route target;
    target.body = payload(300000);
    server.setRoute(u"/target"_s, target);
    server.setRoute(u"/file.zip"_s, route);
    const QString dir = env.root() + u"/deep/er"_s;
    TestEnv::writeFile(dir + u"/file.zip"_s, "an older file that must be replaced");

    FileDownloader downloader(dir, u"file.zip"_s);
    qint64 lastWritten = -1;
    auto outcome = runTask(downloader.download(
        server.url(u"/file.zip"_s), [&](qint64 written, qint64) { lastWritten = written; }));
    QVERIFY2(outcome.ok(), qPrintable(outcome.errorText()));
    QCOMPARE(*outcome.value, dir + u"/file.zip"_s);
    QCOMPARE(TestEnv::readFile(*outcome.value), expected);
    QCOMPARE(QDir(dir).entryList(QDir::Files | QDir::Hidden), QStringList{u"file.zip"_s});
    if (!expected.isEmpty())
        QCOMPARE(lastWritten, qint64(expected.size()));
}

void TestDownload::failuresLeaveNoFile_data()
{
    QTest::addColumn<TestHttpServer::Route>("route");
    QTest::addColumn<QString>("message"); // exact, or a pattern after "~"
    QTest::addColumn<bool>("blockFolder");

    TestHttpServer::Route notFound;
    notFound.status = 404;
    notFound.body = "<html>no such file</html>";
    QTest::newRow("404 with a body")
        << notFound << u"The server answered with error 404."_s << false;
    TestHttpServer::Route serverError;
    serverError.status = 500;
    QTest::newRow("500") << serverError << u"The server answered with error 500."_s << false;
    TestHttpServer::Route reset;
    reset.body = payload(2000000);
    reset.resetAfterBytes = 100000;
    QTest::newRow("reset mid-body") << reset << u"~The download failed: "_s << false;
    TestHttpServer::Route stall;
    stall.body = payload(1000);
    stall.stall = true;
    QTest::newRow("stall beyond the idle time-out")
        << stall << u"The download stalled: nothing arrived for 0.5 seconds."_s << false;
    TestHttpServer::Route fine;
    fine.body = "data";
    QTest::newRow("folder blocked by a file") << fine << u"~Could not create the folder"_s << true;
}

void TestDownload::failuresLeaveNoFile()
{
    QFETCH(TestHttpServer::Route, route);
    QFETCH(QString, message);
    QFETCH(bool, blockFolder);

    TestEnv env;
    TestHttpServer server;
    server.setRoute(u"/file.zip"_s, route);
    const QString dir = env.root() + u"/downloads"_s;
    if (blockFolder)
        TestEnv::writeFile(dir, "a plain file where the folder should be");
    else
        TestEnv::writeFile(dir + u"/file.zip"_s, "kept");

    FileDownloader downloader(dir, u"file.zip"_s);
    downloader.setIdleTimeout(std::chrono::milliseconds(500));
    auto outcome = runTask(downloader.download(server.url(u"/file.zip"_s), {}), 20000);
    QVERIFY(!outcome.ok());
    if (message.startsWith(u'~'))
        QVERIFY2(outcome.errorText().contains(message.mid(1)), qPrintable(outcome.errorText()));
    else
        QCOMPARE(outcome.errorText(), message);
    QVERIFY(!outcome.errorText().contains(u"error 200"_s));
    if (blockFolder) {
        QCOMPARE(TestEnv::readFile(dir), QByteArray("a plain file where the folder should be"));
    } else {
        // Nothing half-written stays behind, and the earlier file is not lost.
        QCOMPARE(QDir(dir).entryList(QDir::Files | QDir::Hidden), QStringList{u"file.zip"_s});
        QCOMPARE(TestEnv::readFile(dir + u"/file.zip"_s), QByteArray("kept"));
    }
}

void TestDownload::cancelEndsWithCancelledError()
{
    TestEnv env;
    TestHttpServer server;
    TestHttpServer::Route drip;
    drip.body = payload(100000);
    drip.dripBytesPerChunk = 1000;
    drip.dripDelayMs = 50;
    server.setRoute(u"/file.zip"_s, drip);

    FileDownloader downloader(env.root(), u"file.zip"_s);
    auto outcome = runTask(downloader.download(server.url(u"/file.zip"_s),
                                               [&](qint64 written, qint64) {
                                                   if (written > 0)
                                                       downloader.cancel();
                                               }),
                           20000);
    QVERIFY_THROWS_EXCEPTION(Cancelled, std::rethrow_exception(outcome.error));
    QVERIFY(downloader.wasCancelled());
    QCOMPARE(QDir(env.root()).entryList({u"*file.zip*"_s}, QDir::Files | QDir::Hidden),
             QStringList{});
}

void TestDownload::modelShowsProgress_data()
{
    QTest::addColumn<bool>("sendLength");
    QTest::addColumn<QString>("finalText");
    QTest::addColumn<bool>("determinate");

    QTest::newRow("known length") << true << u"^2 MB of 2 MB \u00b7 [0-9.]+ (bytes|KB|MB|GB)/s$"_s
                                  << true;
    QTest::newRow("unknown length")
        << false << u"^2 MB \u00b7 [0-9.]+ (bytes|KB|MB|GB)/s$"_s << false;
}

void TestDownload::modelShowsProgress()
{
    QFETCH(bool, sendLength);
    QFETCH(QString, finalText);
    QFETCH(bool, determinate);

    TestEnv env;
    TestHttpServer server;
    TestHttpServer::Route route;
    route.body = payload(2000000);
    route.sendLength = sendLength;
    server.setRoute(u"/game.zip"_s, route);

    AppModel model(AppModel::Config{});
    QStringList texts;
    QList<QVariant> fractions;
    connect(&model, &AppModel::progressTextChanged, this,
            [&] { texts.append(model.progressText()); });
    connect(&model, &AppModel::progressChanged, this,
            [&] { fractions.append(model.property("progress")); });
    const QString dir = TempFolders::make();
    auto outcome = runTask(model.pipeline().download(
        u"game"_s, u"the game"_s, server.url(u"/game.zip"_s), u"game.zip"_s, dir));
    QVERIFY2(outcome.ok(), qPrintable(outcome.errorText()));
    QCOMPARE(model.state(), AppState::downloading(u"the game"_s));
    QCOMPARE(texts.value(0), u"Starting\u2026"_s);
    // Progress arrives on later turns of the event loop.
    QTRY_VERIFY2(QRegularExpression(finalText).match(model.progressText()).hasMatch(),
                 qPrintable(texts.join(u" | "_s)));
    if (determinate) {
        QTRY_COMPARE(model.progress(), std::optional<double>(1.0));
        for (const QVariant &fraction : fractions)
            QVERIFY(fraction.isNull() || (fraction.toDouble() >= 0 && fraction.toDouble() <= 1));
    } else {
        QVERIFY(!model.progress());
    }
    QTRY_VERIFY(
        model.log()->lines().contains(u"Downloading "_s + server.url(u"/game.zip"_s).toString()));
    QDir(dir).removeRecursively();
}

void TestDownload::remoteSize_data()
{
    QTest::addColumn<TestHttpServer::Route>("route");
    QTest::addColumn<std::optional<qint64>>("size");

    TestHttpServer::Route sized;
    sized.body = payload(12345);
    QTest::newRow("announced length") << sized << std::optional<qint64>(12345);
    TestHttpServer::Route noLength = sized;
    noLength.sendLength = false;
    QTest::newRow("no length") << noLength << std::optional<qint64>();
    TestHttpServer::Route empty;
    QTest::newRow("zero length") << empty << std::optional<qint64>();
    TestHttpServer::Route refused = sized;
    refused.status = 405;
    QTest::newRow("405") << refused << std::optional<qint64>();
    refused.status = 404;
    QTest::newRow("404") << refused << std::optional<qint64>();
}

void TestDownload::remoteSize()
{
    QFETCH(TestHttpServer::Route, route);
    QFETCH(std::optional<qint64>, size);

    TestHttpServer server;
    server.setRoute(u"/game.zip"_s, route);
    auto outcome = runTask(RepoDownloader::remoteSize(server.url(u"/game.zip"_s), {}));
    QVERIFY(outcome.ok());
    QCOMPARE(*outcome.value, size);
    QCOMPARE(server.methods(u"/game.zip"_s), QList<QByteArray>{"HEAD"});

    // Nobody listening: still no error, just no size.
    QUrl closed = server.url(u"/game.zip"_s);
    {
        TestHttpServer gone;
        closed.setPort(gone.port());
    }
    auto none = runTask(RepoDownloader::remoteSize(closed, {}));
    QVERIFY(none.ok() && !*none.value);
}

QTEST_GUILESS_MAIN(TestDownload)
#include "tst_download.moc"
