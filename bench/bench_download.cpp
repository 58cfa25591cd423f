// Downloads a 1 GB file from the loopback server through FileDownloader and, in the
// same run, with curl: the launcher's rate against curl's, and how much the
// launcher's memory grows while the body streams to disk.
#include "acquisition/filedownloader.h"
#include "acquisition/followinghash.h"
#include "coro.h"
#include "rssgrowth.h"
#include "testhttpserver.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

#include "benchfile.h"
#include "rounds.h"

using namespace Qt::StringLiterals;

namespace {
constexpr qint64 fileBytes = 1000000000;
constexpr qint64 blockBytes = 1024 * 1024;
constexpr int rounds = 9;
constexpr int timeoutMs = 10 * 60 * 1000;

QByteArray readRange(const QString &path, qint64 offset, qint64 size)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || !file.seek(offset))
        return {};
    return file.read(size);
}

// A download is right when it has the size and the same first and last block as the
// source; a whole comparison would double the disk traffic of the run.
void verify(const QString &source, const QString &copy, const char *who)
{
    const qint64 size = QFileInfo(copy).size();
    if (size != fileBytes)
        throw Failure{QString::fromLatin1(who) +
                      u" wrote %1 bytes, not %2"_s.arg(size).arg(fileBytes)};
    const qint64 tail = fileBytes - blockBytes;
    if (readRange(source, 0, blockBytes) != readRange(copy, 0, blockBytes) ||
        readRange(source, tail, blockBytes) != readRange(copy, tail, blockBytes))
        throw Failure{QString::fromLatin1(who) + u" wrote other bytes than the server sent"_s};
    QFile::remove(copy);
}

struct Run
{
    qint64 ns = 0;
    double rssGrowthMb = 0;
};

// Drives the download from a plain event loop, as the launcher's window does. The
// tests' runTask naps 10 ms between passes of the loop, which would cap the very
// rate measured here.
Run launcherDownload(const QUrl &url, const QString &folder)
{
    FileDownloader downloader(folder, u"zorbit.bin"_s);
    // As the engine's download does: hashed while it arrives, done once the digest is.
    downloader.setHashing(true);
    qint64 reported = 0;
    auto progress = [&reported](qint64 written, qint64) { reported = written; };

    Outcome<QString> outcome;
    bool done = false;
    QEventLoop loop;
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    RssGrowth rss;
    QElapsedTimer clock;
    clock.start();
    auto wrapper = [&]() -> QCoro::Task<void> {
        try {
            auto download = downloader.download(url, progress);
            outcome.value = co_await download;
            auto hashing = resultOf(TaskScope(), downloader.hash()->digest());
            co_await hashing;
        } catch (...) {
            outcome.error = std::current_exception();
        }
        done = true;
        loop.quit();
    };
    auto running = wrapper();
    if (!done)
        loop.exec();
    Run run{clock.nsecsElapsed(), rss.stopMb()};

    if (!done) {
        // The coroutine must end before the downloader it runs in goes away.
        downloader.cancel();
        while (!done)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        throw Failure{u"the launcher's download did not finish in time"_s};
    }
    if (!outcome.ok())
        throw Failure{u"the launcher's download failed: "_s + outcome.errorText()};
    if (reported != fileBytes)
        throw Failure{u"the last progress report said %1 bytes"_s.arg(reported)};
    return run;
}

// The launcher's download runs in a fresh process of its own (this program, started
// with --download), as in a launcher that just started: in this one, each round would
// start from a heap that the rounds before had grown, and the loopback server's memory
// would count as the launcher's.
const char *const downloadOption = "--download";

Run launcherDownloadAlone(const QUrl &url, const QString &folder)
{
    QProcess child;
    child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    child.start(QCoreApplication::applicationFilePath(),
                {QString::fromLatin1(downloadOption), url.toString(), folder});
    if (!child.waitForFinished(timeoutMs) || child.exitStatus() != QProcess::NormalExit ||
        child.exitCode() != 0)
        throw Failure{u"the launcher's download failed (exit code %1)"_s.arg(child.exitCode())};
    const QByteArrayList fields = child.readAllStandardOutput().trimmed().split(' ');
    if (fields.size() != 2)
        throw Failure{u"the launcher's download reported nothing"_s};
    return {fields[0].toLongLong(), fields[1].toDouble()};
}

qint64 curlDownload(const QUrl &url, const QString &target)
{
    QProcess curl;
    QElapsedTimer clock;
    clock.start();
    curl.start(u"curl"_s, {u"-s"_s, u"-o"_s, target, url.toString()});
    if (!curl.waitForFinished(timeoutMs) || curl.exitStatus() != QProcess::NormalExit ||
        curl.exitCode() != 0)
        throw Failure{u"curl failed: "_s + curl.errorString() +
                      u" (exit code %1)"_s.arg(curl.exitCode())};
    return clock.nsecsElapsed();
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() == 4 && arguments[1] == QLatin1String(downloadOption)) {
        try {
            const Run run = launcherDownload(QUrl(arguments[2]), arguments[3]);
            std::printf("%lld %.3f\n", static_cast<long long>(run.ns), run.rssGrowthMb);
            return 0;
        } catch (const Failure &failure) {
            std::fprintf(stderr, "bench_download: %s\n", qPrintable(failure.what));
            return 1;
        }
    }
    const Figure launcherRate{"download_launcher_mb_s"}, curlRate{"download_curl_mb_s"},
        vsCurlFigure{"download_vs_curl", "≥ 0.9"}, rssGrowth{"download_rss_growth_mb", "< 50"};
    Report report("bench_download", {launcherRate, curlRate, vsCurlFigure, rssGrowth});
    report.part(report.all(), [&] {
        QTemporaryDir served;
        QTemporaryDir received;
        if (!served.isValid() || !received.isValid())
            throw Failure{u"no temporary folder"_s};
        const QString source = served.filePath(u"zorbit.bin"_s);
        makeRandomFile(source, fileBytes);

        TestHttpServer server;
        server.setRoute(u"/zorbit.bin"_s, TestHttpServer::file(source));
        const QUrl url = server.url(u"/zorbit.bin"_s);

        auto launcher = [&] {
            const Run run = launcherDownloadAlone(url, received.path());
            verify(source, received.filePath(u"zorbit.bin"_s), "the launcher");
            return run;
        };
        auto curl = [&] {
            const QString target = received.filePath(u"curl.bin"_s);
            const qint64 ns = curlDownload(url, target);
            verify(source, target, "curl");
            return ns;
        };
        const auto [launcherRuns, curlNs] = interleavedRounds(rounds, 0, launcher, curl);
        const Samples launcherNs = samplesOf(launcherRuns, &Run::ns);
        // Throughputs: curl's time over the launcher's.
        const Samples vsCurl = ratios(Samples(curlNs), launcherNs);
        report.print(launcherRate, fixed(mbPerSecond(fileBytes, qint64(launcherNs.median())), 0));
        report.print(curlRate, fixed(mbPerSecond(fileBytes, qint64(Samples(curlNs).median())), 0));
        report.print(vsCurlFigure, fixed(vsCurl.median(), 2), vsCurl.rounds(2));
        report.print(rssGrowth, fixed(samplesOf(launcherRuns, &Run::rssGrowthMb).median(), 1));
    });
    return report.exitCode();
}
