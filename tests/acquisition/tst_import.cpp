// The engine build a game needs, where it lives, and its import of the game judged by
// the files it leaves, with fake engines that behave as the real ones do.
#include "acquisition/enginemanager.h"
#include "app/appmodel.h"
#include "app/pipeline.h"
#include "coro.h"
#include "process/processfailure.h"
#include "testenv.h"

#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

using namespace Qt::StringLiterals;
using EngineManager::Platform;

namespace {
const EngineSpec godot4{u"4.3-stable"_s, u"Godot_v4.3-stable_linux.x86_64.zip"_s, 4};
const EngineSpec godot3{u"3.5.3-stable"_s, u"Godot_v3.5.3-stable_x11.64.zip"_s, 3};
} // namespace

class TestImport : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void choosesBuild_data()
    {
        QTest::addColumn<QString>("features");
        QTest::addColumn<qint64>("configVersion");
        QTest::addColumn<bool>("dotNet"); // signs of C# beside the project
        QTest::addColumn<Platform>("platform");
        QTest::addColumn<QString>("outcome"); // "version zipName major", or the failure

        const QString dotNet =
            u"This game needs the C# (.NET) Godot build, which this app does not set up."_s;
        const QString csharp = u"PackedStringArray(\"4.3\", \"C#\", \"Forward Plus\")"_s;
        const QString godot3 = u"3.5.3-stable Godot_v3.5.3-stable_x11.64.zip 3"_s;
        const QString godot4 = u"4.3-stable Godot_v4.3-stable_linux.x86_64.zip 4"_s;
        const auto x86 = Platform::LinuxX86_64;
        const auto arm = Platform::LinuxArm64;

        QTest::newRow("C# before the version") << csharp << qint64(5) << false << x86 << dotNet;
        QTest::newRow("C# before the processor") << u"C#"_s << qint64(4) << false << arm << dotNet;
        QTest::newRow("c# is not C#") << u"c#"_s << qint64(5) << false << x86 << godot4;
        QTest::newRow("4") << QString() << qint64(4) << false << x86 << godot3;
        QTest::newRow("Godot 3 on arm64")
            << QString() << qint64(4) << false << arm
            << u"This game needs Godot 3, which has no official build for this "
               u"computer's processor (arm64), so this app cannot set it up."_s;
        QTest::newRow("Godot 4 on arm64") << QString() << qint64(5) << false << arm
                                          << u"4.3-stable Godot_v4.3-stable_linux.arm64.zip 4"_s;
        QTest::newRow("the release the project names")
            << u"PackedStringArray(\"4.7\", \"Forward Plus\")"_s << qint64(5) << false << x86
            << u"4.7-stable Godot_v4.7-stable_linux.x86_64.zip 4"_s;
        QTest::newRow("a two-digit release on arm64")
            << u"PackedStringArray(\"GL Compatibility\", \"4.12\")"_s << qint64(5) << false << arm
            << u"4.12-stable Godot_v4.12-stable_linux.arm64.zip 4"_s;
        QTest::newRow("a newer release on macOS")
            << u"PackedStringArray(\"4.7\")"_s << qint64(5) << false << Platform::MacOS
            << u"4.7-stable Godot_v4.7-stable_macos.universal.zip 4"_s;
        QTest::newRow("no release on offer named")
            << u"PackedStringArray(\"4.2\", \"4.4.1\", \"4.07\", \"4.1000\", \"4.\", "
               u"\"v4.8\", \" 4.6\", 4.5)"_s
            << qint64(5) << false << x86 << godot4;
        QTest::newRow("a Godot 3 project with signs of C#")
            << QString() << qint64(4) << true << x86 << dotNet;
        QTest::newRow("a Godot 4 project is judged by its features")
            << u"PackedStringArray(\"4.3\")"_s << qint64(5) << true << x86 << godot4;
    }
    void choosesBuild()
    {
        QFETCH(QString, features);
        QFETCH(qint64, configVersion);
        QFETCH(bool, dotNet);
        QFETCH(Platform, platform);
        QFETCH(QString, outcome);
        ProjectInfo info;
        info.features = features;
        info.configVersion = configVersion;
        info.dotNet = dotNet;
        const auto choose = [&](auto... host) {
            try {
                const EngineSpec spec = EngineManager::spec(info, host...);
                return u"%1 %2 %3"_s.arg(spec.version, spec.zipName).arg(spec.major);
            } catch (const ProcessFailure &failure) {
                return failure.message;
            }
        };
        QCOMPARE(choose(platform), outcome);
        if (platform == EngineManager::hostPlatform())
            QCOMPARE(choose(), outcome);
    }

    void namesFoldersAndArguments()
    {
        // Without XDG_DATA_HOME the desktop's default data folder holds the base folder.
        qunsetenv("XDG_DATA_HOME");
        QCOMPARE(DataLayout::fromEnvironment().base(),
                 QDir::homePath() + u"/.local/share/Vantro 3D"_s);
        // The project path stays one argument, blanks and all.
        const QString path = u"/home/me/My Games"_s;
        QCOMPARE(godot4.importArgs(path).join(u'|'),
                 u"--headless|--import|--path|"_s + path + u"|--quit"_s);
        QCOMPARE(godot3.importArgs(path).join(u'|'), u"--editor|--path|"_s + path);
    }

    void findsExecutable_data()
    {
        QTest::addColumn<QString>("entries");  // in the engine folder
        QTest::addColumn<QString>("expected"); // empty for none

        QTest::newRow("the program, not the text file")
            << u"README.txt | Godot_v4.3-stable_linux.x86_64*"_s
            << u"Godot_v4.3-stable_linux.x86_64"_s;
        QTest::newRow("folders do not count, nor what is in them")
            << u"bin/godot* | Godot.app/Contents/MacOS/Godot* | Godot"_s << QString();
        QTest::newRow("link to a program")
            << u"../elsewhere* | godot->../elsewhere"_s << u"godot"_s;
        QTest::newRow("dangling link") << u"godot->missing"_s << QString();
        QTest::newRow("no folder") << QString() << QString();
    }
    void findsExecutable()
    {
        QFETCH(QString, entries);
        QFETCH(QString, expected);
        TestEnv env;
        const DataLayout layout = DataLayout::fromEnvironment();
        const QString folder = layout.engine(godot4.version);
        TestEnv::build(folder, items(entries));
        QCOMPARE(EngineManager::executable(layout, godot4).value_or(QString()),
                 expected.isEmpty() ? QString() : folder + u'/' + expected);
    }

    void judgesImport_data()
    {
        QTest::addColumn<QString>("entries"); // in the project folder
        QTest::addColumn<int>("major");
        QTest::addColumn<bool>("complete");

        QTest::newRow("every asset with its sidecar, in any case; other files need none")
            << u".godot/imported/x | Icon.PNG | Icon.PNG.import | a/car.png | a/car.png.import | "
               u"player.gd | png | notes.png.txt | x."_s
            << 4 << true;
        QTest::newRow("one missing deep down")
            << u".import/a | icon.png | icon.png.import | a/b/c/d/e/f/g/engine.ogg"_s << 3 << false;
        QTest::newRow("sidecar name is case-sensitive")
            << u".import/ | Icon.PNG | Icon.png.import"_s << 3 << false;
        QTest::newRow("sidecar in another folder")
            << u".import/ | a/horn.wav | b/horn.wav.import"_s << 3 << false;
        QTest::newRow("dangling sidecar link")
            << u".godot/ | x.svg | x.svg.import->nowhere"_s << 4 << false;
        QTest::newRow("hidden entries and linked folders are not examined")
            << u".import/a | .git/logo.png | a/.cache/x.ttf | .t.jpg | ../out/x.obj | "
               u"shared->../out"_s
            << 3 << true;
        QTest::newRow(".gdignore folder and everything below it skipped")
            << u".import/ | docs/.gdignore | docs/shot.png | docs/deep/logo.svg | "
               u"art/.gdignore.txt | art/car.png | art/car.png.import"_s
            << 3 << true;
        QTest::newRow("a .gdignore elsewhere skips nothing here")
            << u".import/ | docs/.gdignore | art/car.png"_s << 3 << false;
        QTest::newRow("a project of its own inside and everything below it skipped")
            << u".import/ | demo/project.godot | demo/icon.png | demo/a/b.wav"_s << 3 << true;
        QTest::newRow("Godot 3 loads fonts as they are")
            << u".import/ | ui/Font.TTF | ui/title.otf"_s << 3 << true;
        QTest::newRow("Godot 4 imports fonts") << u".godot/ | ui/font.ttf"_s << 4 << false;
        QTest::newRow("Godot 3 imports its text scenes") << u".import/ | a.escn"_s << 3 << false;
        QTest::newRow("and compressed SVG") << u".import/ | a.SVGZ"_s << 3 << false;
        const QString shipped = u".import/ | icon.png | icon.png.import=[remap]\n\n"
                                u"importer=\"texture\"\ntype=\"StreamTexture\"\n"
                                u"path=\"res://.import/icon.png-487276ed.stex\"\n\n[deps]\n\n"
                                u"source_file=\"res://icon.png\"\n"
                                u"dest_files=[ \"res://.import/icon.png-487276ed.stex\" ]\n"_s;
        QTest::newRow("Godot 3 sidecar shipped without what it names") << shipped << 3 << false;
        QTest::newRow("Godot 3 sidecar with what it names")
            << shipped + u" | .import/icon.png-487276ed.stex"_s << 3 << true;
        QTest::newRow("Godot 4 trusts its sidecars")
            << QString(shipped).replace(u".import/ |"_s, u".godot/ |"_s) << 4 << true;
        const QString variants =
            u".import/x.s3tc.stex | a.png | a.png.import=path.s3tc=\"res://.import/x.s3tc.stex\"\n"
            u"path.etc2=\"res://.import/x.etc2.stex\"\n"_s;
        QTest::newRow("every variant a sidecar names") << variants << 3 << false;
        QTest::newRow("and every file of its list")
            << variants + u"dest_files=[ \"res://.import/x.s3tc.stex\", \"res://.import/y\" ]"
                          u" | .import/x.etc2.stex"_s
            << 3 << false;
        QTest::newRow("variants all there") << variants + u" | .import/x.etc2.stex"_s << 3 << true;
        QTest::newRow("what it names may lie elsewhere in the project")
            << u".import/ | m.obj | m.obj.import=path=\"res://meshes/m.mesh\" | meshes/m.mesh"_s
            << 3 << true;
        QTest::newRow("but never outside it")
            << u".import/ | m.obj | m.obj.import=path=\"res://../m.mesh\" | ../m.mesh"_s << 3
            << false;
        QTest::newRow("and a folder is no imported file")
            << u".import/ | n.obj | n.obj.import=path=\"res://.import/n\" | .import/n/"_s << 3
            << false;
        QTest::newRow("a sidecar that names nothing: the engine could not import it")
            << u".import/ | broken.png | broken.png.import=[remap]\nvalid=false\n"_s << 3 << true;
        QTest::newRow("no import folder, nothing to import") << u"main.tscn"_s << 3 << false;
        QTest::newRow("no project folder") << QString() << 4 << false;
    }
    void judgesImport()
    {
        QFETCH(QString, entries);
        QFETCH(int, major);
        QFETCH(bool, complete);
        QTemporaryDir dir;
        TestEnv::build(dir.path() + u"/game"_s, items(entries));
        QCOMPARE(EngineManager::importIsComplete(dir.path() + u"/game"_s, major), complete);
    }

    void importsWithTheEngine_data()
    {
        QTest::addColumn<int>("major");
        QTest::addColumn<QString>("engine");    // a fake engine; "none" is none
        QTest::addColumn<QString>("fakery");    // its settings
        QTest::addColumn<QString>("display");   // the X server, "stalls" for one that never starts
        QTest::addColumn<int>("cancelAfterMs"); // 0: none; -1: before the step starts
        QTest::addColumn<QString>("message");   // empty: success
        QTest::addColumn<int>("closedWhenSettled"); // how often

        const QString godot = u"godot.sh"_s, cancelled = u"Setup was cancelled."_s;
        const QString unfinished = u"Godot did not finish preparing the game's files (exit code "
                                   u"%1). Open \"Show log\" for details."_s;
        // The files decide, not the exit status.
        QTest::newRow("Godot 4, complete although the engine failed")
            << 4 << godot << u"FAKE_EXIT=1"_s << QString() << 0 << QString() << 0;
        QTest::newRow("Godot 4, a sidecar missing")
            << 4 << godot << u"FAKE_SKIP=Track.PNG"_s << QString() << 0 << unfinished.arg(0) << 0;
        QTest::newRow("Godot 3, the editor closed once settled, off screen")
            << 3 << godot << u"FAKE_STEP_SECONDS=0.2"_s << u"Xvfb"_s << 0 << QString() << 1;
        QTest::newRow("Godot 3, on screen without Xvfb")
            << 3 << godot << u"FAKE_STEP_SECONDS=0.05"_s << QString() << 0 << QString() << 1;
        QTest::newRow("Godot 3, an editor that never settles closed at the deadline")
            << 3 << godot << u"FAKE_NEVER_SETTLES=1 | FAKE_STEP_SECONDS=0.03"_s << QString() << 0
            << QString() << 0;
        QTest::newRow("Godot 3, a sidecar missing: given up once nothing changes")
            << 3 << godot << u"FAKE_SKIP=engine.wav | FAKE_STEP_SECONDS=0.03"_s << QString() << 0
            << u"Godot did not prepare these files: sounds/engine.wav. Open \"Show log\" for "
               u"details."_s
            << 0;
        QTest::newRow("Godot 3, closed in the middle of a pass: opened again")
            << 3 << godot << u"FAKE_TORN=icon.png | FAKE_STEP_SECONDS=0.03"_s << QString() << 0
            << QString() << 2;
        QTest::newRow("cancel before the engine starts")
            << 3 << godot << QString() << u"Xvfb"_s << -1 << cancelled << 0;
        QTest::newRow("cancel an editor that ignores the terminate request, off screen")
            << 3 << godot << u"FAKE_STUBBORN=1"_s << u"Xvfb"_s << 900 << cancelled << 0;
        QTest::newRow("cancel while the display starts")
            << 3 << godot << QString() << u"stalls"_s << 300 << cancelled << 0;
        QTest::newRow("an engine that cannot start")
            << 4 << u"none"_s << QString() << QString() << 0
            << u"The Godot editor could not be started: No such file or directory."_s << 0;
    }
    void importsWithTheEngine()
    {
        QFETCH(int, major);
        QFETCH(QString, engine);
        QFETCH(QString, fakery);
        QFETCH(QString, display);
        const bool offscreen = display == u"Xvfb"_s;
        QFETCH(int, cancelAfterMs);
        QFETCH(QString, message);
        QFETCH(int, closedWhenSettled);

        TestEnv env;
        const QString root = env.base() + u"/Game/Zorbit-master"_s;
        TestEnv::build(root, {u"project.godot=config_version=4"_s, u"Main.tscn"_s, u"icon.png"_s,
                              u"Track.PNG"_s, u"sounds/engine.wav"_s, u"ui/title.ttf"_s});
        ScopedEnv fake(fakery);
        AppModel::Config config;
        config.importQuiet = std::chrono::milliseconds(150);
        config.importHopeless = std::chrono::milliseconds(1500);
        config.importDeadline = std::chrono::milliseconds(4000);
        config.stopGrace = std::chrono::milliseconds(300);
        config.displayServer = display == u"stalls"_s ? fakeEngine(u"godot.sh"_s) : display;
        AppModel model(config);
        if (cancelAfterMs < 0)
            model.cancel();
        else if (cancelAfterMs > 0)
            QTimer::singleShot(cancelAfterMs, &model, &AppModel::cancel);
        QElapsedTimer clock;
        clock.start();
        auto outcome = runVoidTask(
            model.pipeline().importProject(fakeEngine(engine), major == 3 ? godot3 : godot4, root),
            30000);
        QVERIFY2(outcome.errorText() == message, qPrintable(model.log()->lines().join(u'\n')));
        // The marker records a complete import, and nothing else.
        QCOMPARE(QFileInfo::exists(env.base() + u"/imported.marker"_s), message.isEmpty());
        model.log()->append(u"end"_s); // everything logged before has arrived once this has
        QTRY_VERIFY(model.log()->lines().endsWith(u"end"_s));
        const QStringList log = model.log()->lines();
        QCOMPARE(log.count(u"Import finished, closing the Godot editor."_s), closedWhenSettled);
        if (message == u"Setup was cancelled."_s)
            QVERIFY(clock.elapsed() < 5000);
        // A cancel before the start, or while its display starts, never runs the engine.
        QCOMPARE(log.filter(u"Godot Engine v"_s).isEmpty(),
                 cancelAfterMs < 0 || display == u"stalls"_s || engine != u"godot.sh"_s);
        if (major == 4 || cancelAfterMs < 0)
            return;
        // Off screen, the editor reached its own display with its own authority, and the
        // display went with it.
        const QStringList reached = log.filter(u"Editor on display :"_s);
        QCOMPARE(reached.size(), offscreen ? 1 : 0);
        QCOMPARE(log.contains(u"Godot 3 prepares the game's files in the background; no window "
                              u"opens."_s),
                 offscreen);
        if (offscreen) {
            const QString socket = u"/tmp/.X11-unix/X"_s + reached[0].section(u':', -1);
            QTRY_VERIFY2(!QFileInfo::exists(socket), qPrintable(socket));
        }
        QCOMPARE(env.tmpEntries().filter(u"vantro-"_s), QStringList{});
    }
};

QTEST_GUILESS_MAIN(TestImport)
#include "tst_import.moc"
