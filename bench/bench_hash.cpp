// Times the SHA-512 check of a downloaded engine build against `openssl dgst` and
// `sha512sum` hashing the same 1 GiB file, from a warm page cache, so that the
// figure is the hashing itself and not the disk.
#include "acquisition/engineinstall.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iterator>
#include <limits>

#include "benchfile.h"

using namespace Qt::StringLiterals;

namespace {
constexpr qint64 fileBytes = qint64(1) << 30;
constexpr qint64 blockBytes = 1024 * 1024;
constexpr int rounds = 3;

// Reads the whole file once, so that every contender finds it in the page cache.
void warmUp(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw Failure{u"cannot read "_s + path};
    QByteArray buffer(blockBytes, Qt::Uninitialized);
    while (file.read(buffer.data(), blockBytes) > 0) {
    }
}

// Runs a tool and returns the first word of its output: the digest, for both
// `openssl dgst -r` and `sha512sum`.
QString digestFrom(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(-1) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0)
        throw Failure{program + u" failed: "_s + process.errorString() +
                      QString::fromLocal8Bit(process.readAllStandardError())};
    return QString::fromLatin1(process.readAllStandardOutput().split(' ').value(0)).toLower();
}

struct Contender
{
    const char *name;
    std::function<QString()> run;
};

struct Result
{
    qint64 bestNs = std::numeric_limits<qint64>::max();
    QString digest;
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    try {
        QTemporaryDir dir;
        if (!dir.isValid())
            throw Failure{u"no temporary folder"_s};
        const QString path = dir.filePath(u"engine.zip"_s);
        makeRandomFile(path, fileBytes);
        warmUp(path);

        Contender contenders[] = {
            {"launcher", [&] { return EngineManager::sha512(path); }},
            {"openssl",
             [&] {
                 return digestFrom(u"openssl"_s, {u"dgst"_s, u"-sha512"_s, u"-r"_s, path});
             }},
            {"sha512sum", [&] { return digestFrom(u"sha512sum"_s, {path}); }},
        };
        // The order turns each round, so that no one always runs right after the
        // same neighbour.
        constexpr int count = int(std::size(contenders));
        Result results[count];
        for (int round = 0; round < rounds; ++round) {
            for (int turn = 0; turn < count; ++turn) {
                const int index = (round + turn) % count;
                const Contender &contender = contenders[index];
                Result &result = results[index];
                QElapsedTimer clock;
                clock.start();
                const QString digest = contender.run();
                result.bestNs = std::min(result.bestNs, clock.nsecsElapsed());
                if (digest.size() != 128)
                    throw Failure{QString::fromLatin1(contender.name) + u" gave \""_s + digest +
                                  u"\""_s};
                if (!result.digest.isEmpty() && result.digest != digest)
                    throw Failure{QString::fromLatin1(contender.name) +
                                  u" gave two digests for one file"_s};
                result.digest = digest;
            }
        }
        for (int index = 1; index < count; ++index) {
            if (results[index].digest != results[0].digest)
                throw Failure{QString::fromLatin1(contenders[index].name) + u" disagrees: "_s +
                              results[index].digest + u" against the launcher's "_s +
                              results[0].digest};
        }

        const double launcher = mbPerSecond(fileBytes, results[0].bestNs);
        const double openssl = mbPerSecond(fileBytes, results[1].bestNs);
        std::printf("hash_launcher_mb_s: %.0f\n", launcher);
        std::printf("hash_openssl_mb_s: %.0f\n", openssl);
        std::printf("hash_sha512sum_mb_s: %.0f\n", mbPerSecond(fileBytes, results[2].bestNs));
        std::printf("hash_vs_openssl: %.2f (goal ≥ 0.95)\n", launcher / openssl);
        std::fflush(stdout);
    } catch (const Failure &failure) {
        std::fprintf(stderr, "bench_hash: %s\n", qPrintable(failure.what));
        return 1;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "bench_hash: %s\n", error.what());
        return 1;
    }
    return 0;
}
