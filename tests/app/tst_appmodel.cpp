#include "acquisition/enginemanager.h"
#include "acquisition/tempfolders.h"
#include "app/appmodel.h"
#include "app/modelpreview.h"
#include "common/bytecount.h"
#include "process/processfailure.h"
#include "testenv.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSettings>
#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {
// Lays out the disk as the launcher would leave it; each part can be left out.
struct Disk
{
    bool game = false;
    QByteArray project = "config_version=5\n[application]\nconfig/name=\"Zorbit\"\n";
    bool engine = false;
    bool marker = false;
    bool sidecars = false;
    bool saves = false;
};

} // namespace
Q_DECLARE_METATYPE(Disk)
namespace {

void layOut(const TestEnv &env, const Disk &disk)
{
    const QString root = env.base() + u"/Game/Zorbit-master"_s;
    if (disk.game) {
        TestEnv::writeFile(root + u"/project.godot"_s, disk.project);
        TestEnv::writeFile(root + u"/icon.png"_s, "png");
        QDir().mkpath(root + u"/.godot"_s);
        if (disk.sidecars)
            TestEnv::writeFile(root + u"/icon.png.import"_s, "");
    }
    if (disk.engine) {
        const EngineSpec spec{u"4.3-stable"_s, u"Godot_v4.3-stable_linux.x86_64.zip"_s, 4};
        TestEnv::writeFile(DataLayout::fromEnvironment().engine(spec.version) +
                               u"/Godot_v4.3-stable_linux.x86_64"_s,
                           "#!/bin/sh\n", true);
    }
    if (disk.marker)
        TestEnv::writeFile(env.base() + u"/imported.marker"_s, "");
    if (disk.saves)
        QDir().mkpath(env.data() + u"/godot/app_userdata/Zorbit"_s);
}
} // namespace

class TestAppModel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void titles_data();
    void titles();
    void settings_data();
    void settings();
    void refreshFromDisk_data();
    void refreshFromDisk();
    void savesFollowTheProjectName();
    void byteCounts_data();
    void byteCounts();
    void tempFolders();
};

void TestAppModel::titles_data()
{
    QTest::addColumn<AppState>("state");
    QTest::addColumn<QString>("title");
    QTest::addColumn<bool>("busy");
    QTest::addColumn<QString>("stops"); // what the one action can stop: "game", "setup" or ""

    QTest::newRow("downloading") << AppState::downloading(u"the game"_s)
                                 << u"Downloading: the game"_s << true << u"setup"_s;
    QTest::newRow("settingUp") << AppState::settingUp(u"unpacking the game"_s)
                               << u"Setting up: unpacking the game"_s << true << u"setup"_s;
    QTest::newRow("needs") << AppState::needs(u"the game closed unexpectedly"_s)
                           << u"Needs something: the game closed unexpectedly"_s << false
                           << QString();
    QTest::newRow("notDownloaded")
        << AppState::notDownloaded() << u"Not downloaded"_s << false << QString();
    QTest::newRow("ready") << AppState::ready() << u"Ready"_s << false << QString();
    QTest::newRow("starting") << AppState::starting() << u"Starting the game\u2026"_s << true
                              << u"game"_s;
    QTest::newRow("playing") << AppState::playing() << u"Playing"_s << true << u"game"_s;
}

void TestAppModel::titles()
{
    QFETCH(AppState, state);
    QFETCH(QString, title);
    QFETCH(bool, busy);
    QFETCH(QString, stops);
    QCOMPARE(state.title(), title);
    QCOMPARE(state.isBusy(), busy);
    QVERIFY(state == state);
    QVERIFY(!(state == AppState::downloading(u"other"_s)));
    QCOMPARE(AppState::starting().title().size(), 18);

    TestEnv env;
    AppModel model(AppModel::Config{});
    ModelPreview(model).state(state);
    QCOMPARE(model.stateTitle(), title);
    QCOMPARE(model.isGameRunning(), stops == u"game"_s);
    QCOMPARE(model.canCancel(), stops == u"setup"_s);
}

void TestAppModel::settings_data()
{
    QTest::addColumn<QVariant>("storedFullscreen");
    QTest::addColumn<QVariant>("storedResolution");
    QTest::addColumn<bool>("fullscreen");
    QTest::addColumn<QString>("resolution");

    QTest::newRow("nothing stored") << QVariant() << QVariant() << false << u"Default"_s;
    QTest::newRow("stored choices")
        << QVariant(true) << QVariant(u"1600x900"_s) << true << u"1600x900"_s;
    QTest::newRow("resolution outside the list")
        << QVariant(false) << QVariant(u"800x600"_s) << false << u"Default"_s;
}

void TestAppModel::settings()
{
    QFETCH(QVariant, storedFullscreen);
    QFETCH(QVariant, storedResolution);
    QFETCH(bool, fullscreen);
    QFETCH(QString, resolution);

    TestEnv env;
    {
        QSettings settings;
        if (storedFullscreen.isValid())
            settings.setValue(u"fullscreen"_s, storedFullscreen);
        if (storedResolution.isValid())
            settings.setValue(u"resolution"_s, storedResolution);
    }
    AppModel model(AppModel::Config{});
    QCOMPARE(model.fullscreen(), fullscreen);
    QCOMPARE(model.resolution(), resolution);
    QCOMPARE(QSettings().value(u"resolution"_s), storedResolution); // read, not rewritten

    model.setResolution(u"1920x1080"_s);
    model.setFullscreen(!fullscreen);
    QSettings().sync();
    AppModel again(AppModel::Config{});
    QCOMPARE(again.resolution(), u"1920x1080"_s);
    QCOMPARE(again.fullscreen(), !fullscreen);
    QCOMPARE(AppModel::resolutionChoices(),
             (QStringList{u"Default"_s, u"1280x720"_s, u"1600x900"_s, u"1920x1080"_s}));
}

void TestAppModel::refreshFromDisk_data()
{
    QTest::addColumn<Disk>("disk");
    QTest::addColumn<AppState>("before");
    QTest::addColumn<AppState>("after");
    QTest::addColumn<bool>("hasInfo");

    const AppState notDownloaded = AppState::notDownloaded();
    QTest::newRow("empty disk") << Disk{} << notDownloaded << notDownloaded << false;
    QTest::newRow("game without engine")
        << Disk{.game = true, .sidecars = true} << notDownloaded << notDownloaded << true;
    Disk complete{.game = true, .engine = true, .marker = true, .sidecars = true};
    QTest::newRow("everything in place") << complete << notDownloaded << AppState::ready() << true;
    Disk noSidecar = complete;
    noSidecar.sidecars = false;
    QTest::newRow("marker but a sidecar missing")
        << noSidecar << notDownloaded << notDownloaded << true;
    Disk noMarker = complete;
    noMarker.marker = false;
    QTest::newRow("imported files without marker")
        << noMarker << notDownloaded << notDownloaded << true;
    Disk dotnet = complete;
    dotnet.project = "config_version=5\nconfig/features=PackedStringArray(\"4.3\", \"C#\")\n";
    QTest::newRow(".NET project") << dotnet << AppState::ready() << notDownloaded << true;
    QTest::newRow("a failure is replaced")
        << complete << AppState::needs(u"the game closed unexpectedly"_s) << AppState::ready()
        << true;
    QTest::newRow("playing is left alone")
        << complete << AppState::playing() << AppState::playing() << true;
    QTest::newRow("downloading is left alone without a game")
        << Disk{} << AppState::downloading(u"the game"_s) << AppState::downloading(u"the game"_s)
        << false;
}

void TestAppModel::refreshFromDisk()
{
    QFETCH(Disk, disk);
    QFETCH(AppState, before);
    QFETCH(AppState, after);
    QFETCH(bool, hasInfo);

    TestEnv env;
    AppModel model(AppModel::Config{});
    QCOMPARE(model.state(), AppState::notDownloaded());
    QVERIFY(!model.info());
    QVERIFY(!model.savesFolderExists());
    layOut(env, disk);
    ModelPreview(model).state(before);
    model.refreshFromDisk();
    QCOMPARE(model.state(), after);
    QCOMPARE(bool(model.info()), hasInfo);
    if (hasInfo)
        QCOMPARE(model.info()->root, env.base() + u"/Game/Zorbit-master"_s);

    // A fresh model reads the same disk at start-up.
    if (!before.isBusy()) {
        AppModel fresh(AppModel::Config{});
        QCOMPARE(fresh.state(), after);
    }
}

void TestAppModel::savesFollowTheProjectName()
{
    TestEnv env;
    AppModel model(AppModel::Config{});
    QCOMPARE(model.savesURL(), env.data() + u"/godot/app_userdata/Zorbit"_s);
    QVERIFY(!model.savesFolderExists());

    layOut(env, Disk{.game = true, .project = "config/name=\" My Game \"\n", .saves = true});
    QSignalSpy infoChanged(&model, &AppModel::infoChanged);
    model.refreshFromDisk();
    QCOMPARE(infoChanged.count(), 1);
    QCOMPARE(model.savesURL(), env.data() + u"/godot/app_userdata/My Game"_s);
    QVERIFY(!model.savesFolderExists());
    QDir().mkpath(model.savesURL());
    model.refreshFromDisk();
    QVERIFY(model.savesFolderExists());
}

void TestAppModel::byteCounts_data()
{
    QTest::addColumn<qint64>("bytes");
    QTest::addColumn<QString>("text");

    QTest::newRow("zero") << qint64(0) << u"Zero KB"_s;
    QTest::newRow("one") << qint64(1) << u"1 byte"_s;
    QTest::newRow("bytes") << qint64(999) << u"999 bytes"_s;
    QTest::newRow("one KB") << qint64(1000) << u"1 KB"_s;
    QTest::newRow("KB whole") << qint64(950400) << u"950 KB"_s;
    QTest::newRow("rounds up into MB") << qint64(999999) << u"1 MB"_s;
    QTest::newRow("MB one decimal") << qint64(12345678) << u"12.3 MB"_s;
    QTest::newRow("MB trailing zero dropped") << qint64(2000000) << u"2 MB"_s;
    QTest::newRow("GB two decimals") << qint64(1234567890) << u"1.23 GB"_s;
    QTest::newRow("GB trailing zero dropped") << qint64(1500000000) << u"1.5 GB"_s;
    QTest::newRow("TB") << qint64(2500000000000) << u"2.5 TB"_s;
    // Ties round up on the decimal value, which a binary double cannot hold.
    QTest::newRow("GB tie") << qint64(1015000000) << u"1.02 GB"_s;
    QTest::newRow("TB tie") << qint64(1005000000000) << u"1.01 TB"_s;
    QTest::newRow("MB tie") << qint64(1250000) << u"1.3 MB"_s;
    QTest::newRow("just below a tie") << qint64(1014999999) << u"1.01 GB"_s;
    QTest::newRow("rounds up into GB") << qint64(999950000) << u"1 GB"_s;
    QTest::newRow("negative") << qint64(-5) << u"-5 bytes"_s;
    QTest::newRow("largest") << std::numeric_limits<qint64>::max() << u"9.22 EB"_s;
    QTest::newRow("smallest") << std::numeric_limits<qint64>::min() << u"-9.22 EB"_s;
}

void TestAppModel::byteCounts()
{
    QFETCH(qint64, bytes);
    QFETCH(QString, text);
    QCOMPARE(formatByteCount(bytes), text);
}

void TestAppModel::tempFolders()
{
    TestEnv env;
    const QString first = TempFolders::make();
    const QString second = TempFolders::make();
    QVERIFY(first != second);
    QVERIFY(QFileInfo(first).isDir());
    QCOMPARE(QFileInfo(first).path(), env.tmp());
    QVERIFY(QRegularExpression(
                u"^vantro-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$"_s)
                .match(QFileInfo(first).fileName())
                .hasMatch());

    QDir(env.tmp()).removeRecursively();
    TestEnv::writeFile(env.tmp(), "a file where the temporary folder should be");
    QVERIFY_THROWS_EXCEPTION(PlatformError, TempFolders::make());
}

QTEST_GUILESS_MAIN(TestAppModel)
#include "tst_appmodel.moc"
