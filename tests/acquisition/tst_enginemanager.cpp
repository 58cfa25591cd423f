#include "acquisition/enginemanager.h"
#include "process/processfailure.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

using EngineManager::Platform;

namespace {

// Builds a tree below `base`: "a/" is a folder, "a" an empty file, "a*" an
// executable one, "a->target" a symbolic link.
void build(const QString &base, const QStringList &entries)
{
    for (const QString &entry : entries) {
        const qsizetype arrow = entry.indexOf(u"->"_s);
        const bool executable = entry.endsWith(u'*');
        const QString path = base + u'/' +
                             (arrow > 0    ? entry.first(arrow)
                              : executable ? entry.chopped(1)
                                           : entry);
        QVERIFY(QDir().mkpath(entry.endsWith(u'/') ? path : QFileInfo(path).path()));
        if (arrow > 0) {
            QVERIFY(QFile::link(entry.sliced(arrow + 2), path));
        } else if (!entry.endsWith(u'/')) {
            QFile file(path);
            QVERIFY(file.open(QIODevice::WriteOnly));
            if (executable)
                QVERIFY(
                    file.setPermissions(file.permissions() | QFile::ExeOwner | QFile::ExeOther));
        }
    }
}

const EngineSpec godot4{u"4.3-stable"_s, u"Godot_v4.3-stable_linux.x86_64.zip"_s, 4};

} // namespace

class TestEngineManager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void choosesBuild_data();
    void choosesBuild();
    void namesFoldersArgumentsAndAddresses();
    void findsExecutable_data();
    void findsExecutable();
    void takesFirstExecutableInListingOrder();
    void judgesImport_data();
    void judgesImport();

private:
    QTemporaryDir m_dataHome;
};

void TestEngineManager::initTestCase()
{
    QVERIFY(m_dataHome.isValid());
    qputenv("XDG_DATA_HOME", QFile::encodeName(m_dataHome.path()));
}

void TestEngineManager::choosesBuild_data()
{
    QTest::addColumn<QString>("features");
    QTest::addColumn<qint64>("configVersion");
    QTest::addColumn<Platform>("platform");
    QTest::addColumn<QString>("outcome"); // "version zipName major", or the failure

    const QString dotNet =
        u"This game needs the C# (.NET) Godot build, which this app does not set up."_s;
    const QString csharp = u"PackedStringArray(\"4.3\", \"C#\", \"Forward Plus\")"_s;
    const QString godot3 = u"3.5.3-stable Godot_v3.5.3-stable_x11.64.zip 3"_s;
    const QString godot4 = u"4.3-stable Godot_v4.3-stable_linux.x86_64.zip 4"_s;
    const auto x86 = Platform::LinuxX86_64;
    const auto arm = Platform::LinuxArm64;
    const auto mac = Platform::MacOS;

    QTest::newRow("C# before the version") << csharp << qint64(5) << x86 << dotNet;
    QTest::newRow("C# before the processor") << u"C#"_s << qint64(4) << arm << dotNet;
    QTest::newRow("c# is not C#") << u"c#"_s << qint64(5) << x86 << godot4;
    QTest::newRow("4") << QString() << qint64(4) << x86 << godot3;
    QTest::newRow("most negative")
        << QString() << std::numeric_limits<qint64>::min() << x86 << godot3;
    QTest::newRow("5") << QString() << qint64(5) << x86 << godot4;
    QTest::newRow("Godot 3 on arm64")
        << QString() << qint64(4) << arm
        << u"This game needs Godot 3, which has no official build for this "
           u"computer's processor (arm64), so this app cannot set it up."_s;
    QTest::newRow("Godot 4 on arm64")
        << QString() << qint64(5) << arm << u"4.3-stable Godot_v4.3-stable_linux.arm64.zip 4"_s;
    QTest::newRow("Godot 3 on macOS") << QString() << qint64(4) << mac
                                      << u"3.5.3-stable Godot_v3.5.3-stable_osx.universal.zip 3"_s;
    QTest::newRow("Godot 4 on macOS")
        << QString() << qint64(5) << mac << u"4.3-stable Godot_v4.3-stable_macos.universal.zip 4"_s;
}

void TestEngineManager::choosesBuild()
{
    QFETCH(QString, features);
    QFETCH(qint64, configVersion);
    QFETCH(Platform, platform);
    QFETCH(QString, outcome);

    ProjectInfo info;
    info.features = features;
    info.configVersion = configVersion;
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

void TestEngineManager::namesFoldersArgumentsAndAddresses()
{
    // Without XDG_DATA_HOME the desktop's default data folder holds the base folder.
    qunsetenv("XDG_DATA_HOME");
    const QString fallback = DataLayout::fromEnvironment().base();
    qputenv("XDG_DATA_HOME", QFile::encodeName(m_dataHome.path()));
    QCOMPARE(fallback, QDir::homePath() + u"/.local/share/Vantro 3D"_s);

    // The project path stays one argument, blanks and all.
    const QString path = u"/home/me/My Games/Zorbit"_s;
    QCOMPARE(godot4.importArgs(path),
             (QStringList{u"--headless"_s, u"--import"_s, u"--path"_s, path, u"--quit"_s}));
    const EngineSpec godot3{u"3.5.3-stable"_s, u"Godot_v3.5.3-stable_x11.64.zip"_s, 3};
    QCOMPARE(godot3.importArgs(path), (QStringList{u"--editor"_s, u"--path"_s, path}));
    QCOMPARE(EngineManager::archiveUrl(godot4, u"http://h/d/"_s),
             QUrl(u"http://h/d/4.3-stable/Godot_v4.3-stable_linux.x86_64.zip"_s));
}

void TestEngineManager::findsExecutable_data()
{
    QTest::addColumn<QStringList>("entries"); // in the engine folder
    QTest::addColumn<QString>("expected");    // null for none

    QTest::newRow("the program, not the text file")
        << QStringList{u"README.txt"_s, u"Godot_v4.3-stable_linux.x86_64*"_s}
        << u"Godot_v4.3-stable_linux.x86_64"_s;
    QTest::newRow("folders do not count, nor what is in them")
        << QStringList{u"bin/godot*"_s, u"Godot"_s} << QString();
    QTest::newRow("no bundle lookup")
        << QStringList{u"Godot.app/Contents/MacOS/Godot*"_s} << QString();
    QTest::newRow("link to a program")
        << QStringList{u"../elsewhere*"_s, u"godot->../elsewhere"_s} << u"godot"_s;
    QTest::newRow("dangling link") << QStringList{u"godot->missing"_s} << QString();
    QTest::newRow("no folder") << QStringList{} << QString();
}

void TestEngineManager::findsExecutable()
{
    QFETCH(QStringList, entries);
    QFETCH(QString, expected);

    const DataLayout layout = DataLayout::fromEnvironment();
    const QString folder = layout.engine(godot4.version);
    build(folder, entries);
    const std::optional<QString> found = EngineManager::executable(layout, godot4);
    QDir(layout.base()).removeRecursively();
    QCOMPARE(found.value_or(QString()), expected.isNull() ? QString() : folder + u'/' + expected);
}

void TestEngineManager::takesFirstExecutableInListingOrder()
{
    QTemporaryDir dir;
    for (int i = 0; i < 10; ++i)
        build(dir.path(), {u"godot%1*"_s.arg(i)});
    const QStringList listed = QDir(dir.path()).entryList(QDir::Files, QDir::Unsorted);
    QCOMPARE(EngineManager::firstExecutable(dir.path()), dir.path() + u'/' + listed.first());
}

void TestEngineManager::judgesImport_data()
{
    QTest::addColumn<QStringList>("entries"); // in the project folder
    QTest::addColumn<bool>("complete");
    QTest::addColumn<qint64>("importedEntries");

    QTest::newRow("Godot 4 with every sidecar")
        << QStringList{u".godot/imported/x"_s, u"icon.png"_s,         u"icon.png.import"_s,
                       u"a/car.png"_s,         u"a/car.png.import"_s, u"main.tscn"_s}
        << true << qint64(0);
    QTest::newRow("one sidecar missing")
        << QStringList{u".import/a"_s, u"icon.png"_s, u"icon.png.import"_s, u"tracks/track.glb"_s}
        << false << qint64(1);
    QTest::newRow("missing deep down")
        << QStringList{u".import/"_s, u"a/b/c/d/e/f/g/engine.ogg"_s} << false << qint64(0);
    QTest::newRow("upper-case extension")
        << QStringList{u".import/"_s, u"Icon.PNG"_s, u"Icon.PNG.import"_s} << true << qint64(0);
    QTest::newRow("sidecar name is case-sensitive")
        << QStringList{u".import/"_s, u"Icon.PNG"_s, u"Icon.png.import"_s} << false << qint64(0);
    QTest::newRow("sidecar in another folder")
        << QStringList{u".import/"_s, u"a/horn.wav"_s, u"b/horn.wav.import"_s} << false
        << qint64(0);
    QTest::newRow("hidden entries are not examined")
        << QStringList{u".import/a"_s, u".import/.b"_s, u".git/logo.png"_s, u"a/.cache/x.ttf"_s,
                       u".t.jpg"_s}
        << true << qint64(2);
    QTest::newRow(".gdignore folder and everything below it skipped")
        << QStringList{u".import/"_s,           u"docs/.gdignore"_s,    u"docs/shot.png"_s,
                       u"docs/deep/logo.svg"_s, u"art/.gdignore.txt"_s, u"art/car.png"_s,
                       u"art/car.png.import"_s}
        << true << qint64(0);
    QTest::newRow("a .gdignore elsewhere skips nothing here")
        << QStringList{u".import/"_s, u"docs/.gdignore"_s, u"art/car.png"_s} << false << qint64(0);
    QTest::newRow("other files need nothing")
        << QStringList{u".godot/"_s, u"player.gd"_s, u"png"_s, u"notes.png.txt"_s, u"x."_s} << true
        << qint64(0);
    QTest::newRow("a folder with an asset's name")
        << QStringList{u".godot/"_s, u"models.glb/"_s} << false << qint64(0);
    QTest::newRow("dangling sidecar link")
        << QStringList{u".godot/"_s, u"x.svg"_s, u"x.svg.import->nowhere"_s} << false << qint64(0);
    QTest::newRow("linked folder not walked")
        << QStringList{u".godot/"_s, u"../out/x.obj"_s, u"shared->../out"_s} << true << qint64(0);
    QTest::newRow("no import folder, nothing to import")
        << QStringList{u"main.tscn"_s} << false << qint64(0);
    // Existence is all the check asks of the import folder; a file lists nothing.
    QTest::newRow("import file") << QStringList{u".import"_s} << true << qint64(0);
    QTest::newRow("no project folder") << QStringList{} << false << qint64(0);
}

void TestEngineManager::judgesImport()
{
    QFETCH(QStringList, entries);
    QFETCH(bool, complete);
    QFETCH(qint64, importedEntries);

    QTemporaryDir dir;
    const QString root = dir.path() + u"/game"_s;
    build(root, entries);
    QCOMPARE(EngineManager::importIsComplete(root), complete);
    QCOMPARE(EngineManager::importedEntryCount(root), importedEntries);
}

QTEST_GUILESS_MAIN(TestEngineManager)
#include "tst_enginemanager.moc"
