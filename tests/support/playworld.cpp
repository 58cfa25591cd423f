#include "playworld.h"

#include "testenv.h"
#include "testhttpserver.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>

using namespace Qt::StringLiterals;

namespace {
QByteArray noise(qint64 size)
{
    // Random, so that the zips cannot compress it away.
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator generator(42);
    generator.fillRange(reinterpret_cast<quint32 *>(bytes.data()), size / 4);
    return bytes;
}
} // namespace

AppModel::Config PlayWorld::serve(TestHttpServer &server, const QString &workDir) const
{
    const QString game = workDir + u"/game-src/Zorbit-master"_s;
    TestEnv::writeFile(game + u"/project.godot"_s, project);
    TestEnv::writeFile(game + u"/README.md"_s, "# Zorbit\n\nA racing game. Fast.\n");
    TestEnv::writeFile(game + u"/icon.png"_s, "png");
    if (gamePadding > 0)
        TestEnv::writeFile(game + u"/music.bin"_s, noise(gamePadding));
    TestEnv::zipFolder(workDir + u"/game-src"_s, workDir + u"/game.zip"_s);

    const QString build = workDir + u"/engine-src"_s;
    const QString program = build + u"/Godot_v4.3-stable_linux.x86_64"_s;
    // Without an engine named, the release holds a program that cannot run.
    TestEnv::writeFile(program,
                       engine.isEmpty() ? QByteArray() : TestEnv::readFile(fakeEngine(engine)),
                       !engine.isEmpty());
    if (enginePadding > 0)
        TestEnv::writeFile(build + u"/data.pck"_s, noise(enginePadding));
    const QString zip = workDir + u"/Godot_v4.3-stable_linux.x86_64.zip"_s;
    TestEnv::zipFolder(build, zip);
    const QString digest = TestEnv::toolOutput(u"sha512sum"_s, {zip}).section(u' ', 0, 0);

    for (const auto &[path, file] :
         {std::pair{gamePath, QString(workDir + u"/game.zip"_s)}, {enginePath, zip}})
        server.setRoute(
            QString::fromLatin1(path),
            {.filePath = file, .dripBytesPerChunk = dripBytes, .dripDelayMs = dripDelayMs});
    server.setRoute(u"/releases/4.3-stable/SHA512-SUMS.txt"_s,
                    {.body = (digest + u"  Godot_v4.3-stable_linux.x86_64.zip\n"_s).toUtf8()});

    return {.engineEndpoint = server.url(u"/releases/"_s).toString(),
            .gameArchiveUrl = server.url(QString::fromLatin1(gamePath)).toString()};
}
