#include "acquisition/enginemanager.h"
#include "acquisition/tempfolders.h"
#include "app/appmodel.h"
#include "app/modelpreview.h"
#include "app/viewrules.h"
#include "common/bytecount.h"
#include "coro.h"
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
    void ownsOnlyItsOwn_data();
    void ownsOnlyItsOwn();
    void measuresInstalledSize_data();
    void measuresInstalledSize();
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
    QCOMPARE(formatByteCount(bytes), QString(text).replace(u' ', u'\u00a0'));
}

void TestAppModel::ownsOnlyItsOwn_data()
{
    // Paths start with D (the data folder), B (the base folder) or T (the temporary
    // folder); "a->b" is a link, "x/" a folder, anything else a file. "T/ours" is one
    // of our temporary folders that no launcher holds, "T/held" one that this one does.
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<QString>("action"); // sweep, lock or empty
    QTest::addColumn<QStringList>("left");
    QTest::addColumn<QStringList>("gone");

    QTest::newRow("what a killed run left, and nothing else")
        << QStringList{u"B/GameStaging/x"_s,
                       u"B/Game.old/x"_s,
                       u"B/Removing/x"_s,
                       u"B/Engine/4.3-stable.unpacking/x"_s,
                       u"B/Engine/3.5.3-stable.old/x"_s,
                       u"B/Engine/4.3-stable/godot"_s,
                       u"B/Engine/mine.old/x"_s,
                       u"B/notes.txt"_s,
                       u"T/ours"_s,
                       u"T/held"_s}
        << u"sweep"_s
        << QStringList{u"B/Engine/4.3-stable/godot"_s, u"B/Engine/mine.old/x"_s, u"B/notes.txt"_s,
                       u"T/held"_s}
        << QStringList{u"B/GameStaging"_s,
                       u"B/Game.old"_s,
                       u"B/Removing"_s,
                       u"B/Engine/4.3-stable.unpacking"_s,
                       u"B/Engine/3.5.3-stable.old"_s,
                       u"T/ours"_s};
    QTest::newRow("names like ours that are not ours")
        << QStringList{u"D/Vantro 3D.old/keep"_s,
                       u"D/Vantro 3D.lock/keep"_s,
                       u"T/vantro-notes/keep"_s,
                       u"T/vantro-1b4e28ba-2fa1-11d2-883f-0016d3cca427/keep"_s,
                       u"T/vantro-1B4E28BA-2FA1-11D2-883F-0016D3CCA427->../outside"_s,
                       u"D/outside/keep"_s}
        << u"sweep"_s
        << QStringList{u"D/Vantro 3D.old/keep"_s,
                       u"D/Vantro 3D.lock/keep"_s,
                       u"T/vantro-notes/keep"_s,
                       u"T/vantro-1b4e28ba-2fa1-11d2-883f-0016d3cca427/keep"_s,
                       u"T/vantro-1B4E28BA-2FA1-11D2-883F-0016D3CCA427"_s,
                       u"D/outside/keep"_s}
        << QStringList{};
    QTest::newRow("a linked folder of one's own builds")
        << QStringList{u"D/builds/4.3-stable.old/keep"_s, u"D/builds/4.3-stable.unpacking/keep"_s,
                       u"B/Engine->../builds"_s}
        << u"sweep"_s
        << QStringList{u"D/builds/4.3-stable.old/keep"_s, u"D/builds/4.3-stable.unpacking/keep"_s}
        << QStringList{};
    QTest::newRow("a previous copy stays until its replacement is in")
        << QStringList{u"B/Game.previous/x"_s, u"B/imported.marker.previous"_s} << u"sweep"_s
        << QStringList{u"B/Game.previous/x"_s, u"B/imported.marker.previous"_s} << QStringList{};
    QTest::newRow("a previous copy goes once its replacement is in")
        << QStringList{u"B/Game.previous/x"_s, u"B/Game/project.godot"_s} << u"sweep"_s
        << QStringList{u"B/Game/project.godot"_s} << QStringList{u"B/Game.previous"_s};
    QTest::newRow("a folder in the lock's place")
        << QStringList{u"B/.lock/x"_s} << u"lock"_s << QStringList{u"B/.lock"_s}
        << QStringList{u"B/.lock/x"_s};
    QTest::newRow("remove everything keeps the lock, follows no link")
        << QStringList{u"B/Game/x"_s, u"B/notes.txt"_s, u"B/Engine->../builds"_s,
                       u"D/builds/godot"_s}
        << u"empty"_s << QStringList{u"B/.lock"_s, u"D/builds/godot"_s}
        << QStringList{u"B/Game"_s, u"B/notes.txt"_s, u"B/Engine"_s};
}

void TestAppModel::ownsOnlyItsOwn()
{
    QFETCH(QStringList, entries);
    QFETCH(QString, action);
    QFETCH(QStringList, left);
    QFETCH(QStringList, gone);

    TestEnv env;
    const DataLayout layout = DataLayout::fromEnvironment();
    const QString held = TempFolders::make();
    auto path = [&](QString entry) -> QString {
        if (entry == u"T/ours"_s)
            entry = u"T/vantro-1B4E28BA-2FA1-11D2-883F-0016D3CCA427"_s;
        if (entry == u"T/held"_s)
            return held;
        const QString root = entry.startsWith(u'B')   ? layout.base()
                             : entry.startsWith(u'T') ? env.tmp()
                                                      : env.data();
        return root + entry.mid(1);
    };
    for (const QString &entry : entries) {
        const qsizetype arrow = entry.indexOf(u"->"_s);
        const QString at = path(arrow > 0 ? entry.left(arrow) : entry);
        QDir().mkpath(QFileInfo(at).path());
        if (arrow > 0)
            QVERIFY(QFile::link(entry.mid(arrow + 2), at));
        else if (entry.endsWith(u'/'))
            QDir().mkpath(at);
        else if (entry == u"T/ours"_s)
            TestEnv::writeFile(at + u"/part"_s, "x");
        else if (entry != u"T/held"_s)
            TestEnv::writeFile(at, "x");
    }
    if (!entries.contains(u"T/held"_s))
        QDir(held).removeRecursively();

    DataFolder folder(layout);
    QVERIFY(folder.lock());
    if (action == u"sweep")
        folder.sweep();
    if (action == u"empty")
        folder.empty();
    for (const QString &entry : left)
        QVERIFY2(QFileInfo(path(entry)).exists() || QFileInfo(path(entry)).isSymLink(),
                 qPrintable(entry));
    for (const QString &entry : gone)
        QVERIFY2(!QFileInfo(path(entry)).exists() && !QFileInfo(path(entry)).isSymLink(),
                 qPrintable(entry));
    QVERIFY(QFileInfo(layout.lock()).isFile());
    // The lock is this launcher's alone.
    DataFolder second(layout);
    QVERIFY(!second.lock());
}

void TestAppModel::measuresInstalledSize_data()
{
    QTest::addColumn<bool>("linked"); // the base folder is a link to the real one
    QTest::newRow("a folder of its own") << false;
    QTest::newRow("reached through a link") << true;
}

// Files count with the space they take, folders count nothing; the newest of two
// overlapping measurements is the one shown.
void TestAppModel::measuresInstalledSize()
{
    QFETCH(bool, linked);
    TestEnv env;
    const QString real = linked ? env.data() + u"/elsewhere"_s : env.base();
    for (int i = 0; i < 40; ++i)
        TestEnv::writeFile(real + u"/Game/d%1/e%1/f.bin"_s.arg(i), QByteArray(5000, 'x'));
    if (linked)
        QVERIFY(QFile::link(real, env.base()));
    const qint64 expected = TestEnv::toolOutput(u"sh"_s, {u"-c"_s,
                                                          u"find \"$0\" -type f -printf '%b\\n' | "
                                                          u"awk '{s += $1 * 512} END {print s}'"_s,
                                                          real})
                                .trimmed()
                                .toLongLong();
    QVERIFY(expected >= 40 * 5000);

    AppModel model(AppModel::Config{});
    QCOMPARE(*runTask(model.installedSize()).value, expected);
    ViewRules *rules = model.viewRules();
    rules->measureInstalledSize();
    QSignalSpy changed(rules, &ViewRules::changed);
    rules->measureInstalledSize();
    QTRY_COMPARE(rules->installedSizeText(), formatByteCount(expected));
    QTest::qWait(300); // the older measurement's result, which must not speak
    QCOMPARE(changed.count(), 1);
}

QTEST_GUILESS_MAIN(TestAppModel)
#include "tst_appmodel.moc"
