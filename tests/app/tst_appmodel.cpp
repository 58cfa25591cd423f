// The model without a download: its states, settings and reading of the disk, the
// data folder it owns, the folders it shows and the progress it gives the dock. Runs
// on a private session bus (dbus-run-session), where it plays the dock itself.
#include "acquisition/tempfolders.h"
#include "app/appmodel.h"
#include "app/launcherentry.h"
#include "app/modelpreview.h"
#include "app/viewrules.h"
#include "common/bytecount.h"
#include "coro.h"
#include "testenv.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QDir>
#include <QScopeGuard>
#include <QSettings>
#include <QSignalSpy>
#include <QTest>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

class TestAppModel : public QObject
{
    Q_OBJECT

public Q_SLOTS:
    // The dock: what the launcher shows, in per cent or "off".
    void updated(const QDBusMessage &message)
    {
        if (message.arguments().value(0).toString() != LauncherEntry::applicationUri()) {
            m_dockDone = true; // the end marker
            return;
        }
        QVariantMap properties;
        message.arguments().value(1).value<QDBusArgument>() >> properties;
        m_dock << (properties.value(u"progress-visible"_s).toBool()
                       ? QString::number(properties.value(u"progress"_s).toDouble())
                       : u"off"_s);
    }
    // Stands in for the desktop's file manager.
    void open(const QUrl &url) { m_opened.append(url); }

private Q_SLOTS:
    void initTestCase()
    {
        QDBusConnection dock =
            QDBusConnection::connectToBus(QDBusConnection::SessionBus, u"dock"_s);
        m_dockListens = dock.connect({}, {}, u"com.canonical.Unity.LauncherEntry"_s, u"Update"_s,
                                     this, SLOT(updated(QDBusMessage)));
        // A call answered by the bus comes after the match rule was added.
        if (m_dockListens)
            dock.interface()->isServiceRegistered(u"org.freedesktop.DBus"_s);
    }

    // The one action stops a game while it starts or runs, and a step while it works;
    // busy refuses Play and the deleting commands.
    void titles()
    {
        TestEnv env;
        AppModel model(AppModel::Config{});
        const std::tuple<AppState, QString, QString> cases[] = {
            {AppState::downloading(u"the game"_s), u"Downloading: the game"_s, u"setup"_s},
            {AppState::settingUp(u"unpacking"_s), u"Setting up: unpacking"_s, u"setup"_s},
            {AppState::needs(u"a fix"_s), u"Needs something: a fix"_s, QString()},
            {AppState::notDownloaded(), u"Not downloaded"_s, QString()},
            {AppState::ready(), u"Ready"_s, QString()},
            {AppState::starting(), u"Starting the game\u2026"_s, u"game"_s},
            {AppState::playing(), u"Playing"_s, u"game"_s},
        };
        for (const auto &[state, title, stops] : cases) {
            ModelPreview(model).state(state);
            QCOMPARE(model.stateTitle(), title);
            QCOMPARE(model.isBusy(), !stops.isEmpty());
            QCOMPARE(model.isGameRunning(), stops == u"game"_s);
            QCOMPARE(model.canCancel(), stops == u"setup"_s);
        }
    }

    // Stored choices come back, and a resolution outside the list falls back to Default.
    void settings()
    {
        const std::tuple<QVariant, QVariant, bool, QString> cases[] = {
            {QVariant(), QVariant(), false, u"Default"_s},
            {true, u"1600x900"_s, true, u"1600x900"_s},
            {false, u"800x600"_s, false, u"Default"_s},
        };
        for (const auto &[storedFullscreen, storedResolution, fullscreen, resolution] : cases) {
            TestEnv env;
            if (storedFullscreen.isValid()) {
                QSettings().setValue(u"fullscreen"_s, storedFullscreen);
                QSettings().setValue(u"resolution"_s, storedResolution);
            }
            AppModel model(AppModel::Config{});
            QCOMPARE(model.fullscreen(), fullscreen);
            QCOMPARE(model.resolution(), resolution);
        }
    }

    void refreshFromDisk_data()
    {
        // On the disk: the game, its engine, the import marker, every sidecar, a save
        // folder; "dotnet" makes the game a .NET one named " My Game ".
        QTest::addColumn<QString>("disk");
        QTest::addColumn<AppState>("before");
        QTest::addColumn<AppState>("after");

        const AppState notDownloaded = AppState::notDownloaded(), ready = AppState::ready();
        const QString complete = u"game engine marker sidecars"_s;
        QTest::newRow("empty disk") << QString() << notDownloaded << notDownloaded;
        QTest::newRow("everything in place, saves too")
            << complete + u" saves"_s << notDownloaded << ready;
        QTest::newRow("game without engine")
            << u"game sidecars"_s << notDownloaded << notDownloaded;
        QTest::newRow("marker but a sidecar missing")
            << u"game engine marker"_s << notDownloaded << notDownloaded;
        QTest::newRow("imported files without marker")
            << u"game engine sidecars"_s << notDownloaded << notDownloaded;
        QTest::newRow(".NET project") << complete + u" dotnet saves"_s << ready << notDownloaded;
        QTest::newRow("a failure is replaced")
            << complete << AppState::needs(u"the game closed unexpectedly"_s) << ready;
        QTest::newRow("downloading is left alone without a game")
            << QString() << AppState::downloading(u"the game"_s)
            << AppState::downloading(u"the game"_s);
    }
    void refreshFromDisk()
    {
        QFETCH(QString, disk);
        QFETCH(AppState, before);
        QFETCH(AppState, after);

        TestEnv env;
        AppModel model(AppModel::Config{});
        const QString root = env.base() + u"/Game/Zorbit-master"_s;
        // Godot's save folder follows the project's name.
        const QString saves = env.data() + u"/godot/app_userdata/"_s +
                              (disk.contains(u"dotnet"_s) ? u"My Game"_s : u"Zorbit"_s);
        if (disk.contains(u"game"_s))
            TestEnv::build(root,
                           {disk.contains(u"dotnet"_s)
                                ? u"project.godot=config_version=5\nconfig/name=\" My Game \"\n"
                                  u"config/features=PackedStringArray(\"4.3\", \"C#\")"_s
                                : u"project.godot=config_version=5\nconfig/name=\"Zorbit\""_s,
                            u"icon.png"_s, u".godot/"_s,
                            disk.contains(u"sidecars"_s) ? u"icon.png.import"_s : u"x"_s});
        if (disk.contains(u"engine"_s))
            TestEnv::build(env.base(), {u"Engine/4.3-stable/Godot_v4.3-stable_linux.x86_64*"_s});
        if (disk.contains(u"marker"_s))
            TestEnv::build(env.base(), {u"imported.marker"_s});
        if (disk.contains(u"saves"_s))
            QDir().mkpath(saves);
        ModelPreview(model).state(before);
        model.refreshFromDisk();
        QCOMPARE(model.state(), after);
        QCOMPARE(model.info() ? model.info()->root : QString(), disk.isEmpty() ? QString() : root);
        QCOMPARE(model.savesURL(), saves);
        QCOMPARE(model.savesFolderExists(), disk.contains(u"saves"_s));
        // A fresh model reads the same disk at start-up.
        if (!before.isBusy())
            QCOMPARE(AppModel(AppModel::Config{}).state(), after);
    }

    void byteCounts()
    {
        const std::pair<qint64, QString> cases[] = {
            {0, u"Zero KB"_s},
            {1, u"1 byte"_s},
            {999, u"999 bytes"_s},
            {12345678, u"12.3 MB"_s},
            // Ties round up on the decimal value, which a binary double cannot hold.
            {1015000000, u"1.02 GB"_s},
            {1014999999, u"1.01 GB"_s},
            {999950000, u"1 GB"_s},
            {-5, u"-5 bytes"_s},
            {std::numeric_limits<qint64>::max(), u"9.22 EB"_s},
            {std::numeric_limits<qint64>::min(), u"-9.22 EB"_s},
        };
        for (const auto &[bytes, text] : cases)
            QCOMPARE(formatByteCount(bytes), QString(text).replace(u' ', u'\u00a0'));
    }

    void ownsOnlyItsOwn_data()
    {
        // Paths start with D (the data folder), B (the base folder) or T (the temporary
        // folder); "a->b" is a link, "a*" a program. "T/held" is a temporary folder that
        // this launcher holds; the other "T/vantro-<uuid>" ones no launcher holds. What is
        // not gone stays.
        QTest::addColumn<QString>("entries");
        QTest::addColumn<QString>("action"); // sweep or empty
        QTest::addColumn<QString>("gone");

        QTest::newRow("what a killed run left, and nothing else")
            << u"B/GameStaging/x | B/Game.old/x | B/Removing/x | B/Engine/4.3-stable.unpacking/x | "
               u"B/Engine/3.5.3-stable.old/x | B/Engine/4.3-stable/godot | B/Engine/mine.old/x | "
               u"B/notes.txt | T/vantro-1B4E28BA-2FA1-11D2-883F-0016D3CCA427/x | T/held"_s
            << u"sweep"_s
            << u"B/GameStaging | B/Game.old | B/Removing | B/Engine/4.3-stable.unpacking | "
               u"B/Engine/3.5.3-stable.old | T/vantro-1B4E28BA-2FA1-11D2-883F-0016D3CCA427"_s;
        QTest::newRow("leftovers of every build a project can name, and only those")
            << u"B/Engine/4.7-stable/godot* | B/Engine/4.7-stable.unpacking/x | "
               u"B/Engine/4.12-stable.old/x | B/Engine/4.2-stable.unpacking/x | "
               u"B/Engine/4.07-stable.unpacking/x | B/Engine/4.7-beta.unpacking/x | "
               u"B/Engine/4.7-stable.part/x"_s
            << u"sweep"_s << u"B/Engine/4.7-stable.unpacking | B/Engine/4.12-stable.old"_s;
        QTest::newRow("builds set aside go once a build of any version runs")
            << u"B/Engine.previous/4.3-stable/godot* | B/Engine/4.7-stable/godot*"_s << u"sweep"_s
            << u"B/Engine.previous"_s;
        QTest::newRow("builds set aside stay while the new one cannot run")
            << u"B/Engine.previous/4.3-stable/godot* | B/Engine/4.7-stable/godot"_s << u"sweep"_s
            << QString();
        QTest::newRow("names like ours that are not ours")
            << u"D/Vantro 3D.old/keep | D/Vantro 3D.lock/keep | T/vantro-notes/keep | "
               u"T/vantro-1b4e28ba-2fa1-11d2-883f-0016d3cca427/keep | D/outside/keep | "
               u"T/vantro-1B4E28BA-2FA1-11D2-883F-0016D3CCA427->../data/outside"_s
            << u"sweep"_s << QString();
        QTest::newRow("a linked folder of one's own builds")
            << u"D/builds/4.3-stable.old/keep | D/builds/4.3-stable.unpacking/keep | "
               u"B/Engine->../builds"_s
            << u"sweep"_s << QString();
        QTest::newRow("a previous copy stays until its replacement is in")
            << u"B/Game.previous/x | B/imported.marker.previous"_s << u"sweep"_s << QString();
        QTest::newRow("a previous copy goes once its replacement is in")
            << u"B/Game.previous/x | B/Game/project.godot"_s << u"sweep"_s << u"B/Game.previous"_s;
        QTest::newRow("a folder in the lock's place")
            << u"B/.lock/x"_s << QString() << u"B/.lock/x"_s;
        QTest::newRow("remove everything keeps the lock, follows no link")
            << u"B/Game/x | B/notes.txt | B/Engine->../builds | D/builds/godot"_s << u"empty"_s
            << u"B/Game | B/notes.txt | B/Engine"_s;
    }
    void ownsOnlyItsOwn()
    {
        QFETCH(QString, entries);
        QFETCH(QString, action);
        QFETCH(QString, gone);

        TestEnv env;
        const DataLayout layout = DataLayout::fromEnvironment();
        const QString held = TempFolders::make();
        auto path = [&](const QString &entry) -> QString {
            if (entry == u"T/held"_s)
                return held;
            return (entry.startsWith(u'B')   ? layout.base()
                    : entry.startsWith(u'T') ? env.tmp()
                                             : env.data()) +
                   entry.mid(1);
        };
        for (const QString &entry : items(entries)) {
            if (entry != u"T/held"_s)
                TestEnv::build(u"/"_s, {path(entry).mid(1)});
        }
        if (!entries.contains(u"T/held"_s))
            QDir(held).removeRecursively();

        DataFolder folder(layout);
        QVERIFY(folder.lock());
        if (action == u"sweep")
            folder.sweep();
        if (action == u"empty")
            folder.empty();
        for (QString entry : items(entries)) {
            entry = entry.section(u"->"_s, 0, 0).remove(u'*');
            const QFileInfo info(path(entry));
            const bool expectGone = std::ranges::any_of(items(gone), [&](const QString &g) {
                return entry == g || entry.startsWith(g + u'/');
            });
            QVERIFY2((info.exists() || info.isSymLink()) != expectGone, qPrintable(entry));
        }
        // The lock is a file, and this launcher's alone.
        QVERIFY(QFileInfo(layout.lock()).isFile());
        QVERIFY(!DataFolder(layout).lock());
    }

    // Files count with the space they take, folders count nothing, the base folder counts
    // through its link; the newest of two overlapping measurements is the one shown.
    void measuresInstalledSize()
    {
        TestEnv env;
        const QString real = env.data() + u"/elsewhere"_s;
        for (int i = 0; i < 40; ++i)
            TestEnv::writeFile(real + u"/Game/d%1/e%1/f.bin"_s.arg(i), QByteArray(5000, 'x'));
        QVERIFY(QFile::link(real, env.base()));
        // Each file takes the blocks the file system gives it; folders count nothing.
        struct stat file;
        ::stat(QFile::encodeName(real + u"/Game/d0/e0/f.bin"_s).constData(), &file);
        const qint64 expected = 40 * qint64(file.st_blocks) * 512;

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

    // With no file manager on the bus, the folder that holds the item is opened.
    void revealsFolders()
    {
        TestEnv env;
        QDesktopServices::setUrlHandler(u"file"_s, this, "open");
        const auto unset = qScopeGuard([] { QDesktopServices::unsetUrlHandler(u"file"_s); });
        AppModel model(AppModel::Config{});
        model.showSaves(); // no save folder: nothing opens
        model.revealInFinder();
        QVERIFY(QFileInfo(env.base()).isDir());
        QTRY_COMPARE(m_opened, QList<QUrl>{QUrl::fromLocalFile(env.data())});
        QDir().mkpath(model.savesURL());
        model.showSaves();
        QVERIFY(model.savesFolderExists());
        QTRY_COMPARE(m_opened.value(1), QUrl::fromLocalFile(env.data() + u"/godot/app_userdata"_s));
    }

    void dockProgress_data()
    {
        // Model changes: a state word, or a progress ("none" is indeterminate).
        QTest::addColumn<QString>("changes");
        QTest::addColumn<QString>("shown");

        QTest::newRow("failure clears") << u"downloading 0.3 needs"_s << u"0.3 off"_s;
        QTest::newRow("indeterminate hides")
            << u"settingUp none 0.4 none 0.6 playing"_s << u"0.4 off 0.6 off"_s;
        QTest::newRow("out of range, not a number")
            << u"downloading -0.5 1.7 nan ready"_s << u"0 1 off"_s;
        QTest::newRow("quit mid-download") << u"downloading 0.5"_s << u"0.5 off"_s;
        QTest::newRow("idle progress ignored") << u"ready 0.5 starting 0.7"_s << QString();
        QStringList steps, shown;
        for (int i = 0; i <= 1000; ++i)
            steps << QString::number(i / 1000.0);
        for (int i = 0; i <= 100; ++i)
            shown << QString::number(i / 100.0);
        QTest::newRow("many small steps, one per cent")
            << u"downloading "_s + steps.join(u' ') + u" ready"_s << shown.join(u' ') + u" off"_s;
    }
    void dockProgress()
    {
        QFETCH(QString, changes);
        QFETCH(QString, shown);
        QVERIFY2(m_dockListens, "run under dbus-run-session, as CTest does");
        TestEnv env;
        AppModel model(AppModel::Config{});
        m_dock.clear();
        m_dockDone = false;
        {
            LauncherEntry entry(&model);
            const QHash<QString, AppState> states{
                {u"downloading"_s, AppState::downloading(u"the game"_s)},
                {u"settingUp"_s, AppState::settingUp(u"unpacking the game"_s)},
                {u"needs"_s, AppState::needs(u"The download failed."_s)},
                {u"ready"_s, AppState::ready()},
                {u"starting"_s, AppState::starting()},
                {u"playing"_s, AppState::playing()}};
            for (const QString &change : changes.split(u' ')) {
                if (states.contains(change))
                    ModelPreview(model).state(states.value(change));
                else
                    ModelPreview(model).progress(
                        change == u"none"_s ? std::nullopt : std::optional(change.toDouble()));
            }
        }
        QDBusMessage marker =
            QDBusMessage::createSignal(u"/"_s, u"com.canonical.Unity.LauncherEntry"_s, u"Update"_s);
        marker << u"application://marker.desktop"_s << QVariantMap{};
        QVERIFY(QDBusConnection::sessionBus().send(marker));
        QTRY_VERIFY(m_dockDone);
        QCOMPARE(m_dock.join(u' '), shown);
    }

private:
    QStringList m_dock;
    bool m_dockDone = false, m_dockListens = false;
    QList<QUrl> m_opened;
};

QTEST_GUILESS_MAIN(TestAppModel)
#include "tst_appmodel.moc"
