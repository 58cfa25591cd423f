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

#include "benchfile.h"
#include "rounds.h"

using namespace Qt::StringLiterals;

namespace {
constexpr qint64 fileBytes = qint64(1) << 30;
constexpr qint64 blockBytes = 1024 * 1024;
constexpr int rounds = 5;

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

// Times one digest and checks it against the others': every contender must give the
// same one for the same file, round after round.
class Contender
{
public:
    Contender(const char *name, std::function<QString()> run, QString *agreed)
        : m_name(name), m_run(std::move(run)), m_agreed(agreed)
    {}
    qint64 operator()()
    {
        QElapsedTimer clock;
        clock.start();
        const QString digest = m_run();
        const qint64 ns = clock.nsecsElapsed();
        if (digest.size() != 128)
            throw Failure{QString::fromLatin1(m_name) + u" gave \""_s + digest + u"\""_s};
        if (m_agreed->isEmpty())
            *m_agreed = digest;
        else if (digest != *m_agreed)
            throw Failure{QString::fromLatin1(m_name) + u" gave "_s + digest +
                          u" where another contender gave "_s + *m_agreed};
        return ns;
    }

private:
    const char *m_name;
    std::function<QString()> m_run;
    QString *m_agreed;
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const Figure launcherRate{"hash_launcher_mb_s"}, opensslRate{"hash_openssl_mb_s"},
        sha512sumRate{"hash_sha512sum_mb_s"}, vsOpensslFigure{"hash_vs_openssl", "≥ 0.95"};
    Report report("bench_hash", {launcherRate, opensslRate, sha512sumRate, vsOpensslFigure});
    report.part(report.all(), [&] {
        QTemporaryDir dir;
        if (!dir.isValid())
            throw Failure{u"no temporary folder"_s};
        const QString path = dir.filePath(u"engine.zip"_s);
        makeRandomFile(path, fileBytes);
        warmUp(path);

        QString digest;
        Contender launcher(
            "launcher", [&] { return EngineManager::sha512(path); }, &digest);
        Contender openssl(
            "openssl",
            [&] {
                return digestFrom(u"openssl"_s, {u"dgst"_s, u"-sha512"_s, u"-r"_s, path});
            },
            &digest);
        Contender sha512sum(
            "sha512sum", [&] { return digestFrom(u"sha512sum"_s, {path}); }, &digest);
        const auto [launcherNs, opensslNs, sha512sumNs] =
            interleavedRounds(rounds, 0, launcher, openssl, sha512sum);

        // Throughputs: the reference's time over the launcher's.
        const Samples vsOpenssl = ratios(Samples(opensslNs), Samples(launcherNs));
        auto rate = [](const std::vector<qint64> &ns) {
            return fixed(mbPerSecond(fileBytes, qint64(Samples(ns).median())), 0);
        };
        report.print(launcherRate, rate(launcherNs));
        report.print(opensslRate, rate(opensslNs));
        report.print(sha512sumRate, rate(sha512sumNs));
        report.print(vsOpensslFigure, fixed(vsOpenssl.median(), 2), vsOpenssl.rounds(2));
    });
    return report.exitCode();
}
