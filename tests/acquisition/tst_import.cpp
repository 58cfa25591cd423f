#include "acquisition/enginemanager.h"
#include "acquisition/importwatcher.h"
#include "app/appmodel.h"
#include "app/pipeline.h"
#include "coro.h"
#include "process/processfailure.h"
#include "process/runprocess.h"
#include "testenv.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QImage>
#include <QTest>
#include <QTimer>

using namespace Qt::StringLiterals;

namespace {
const EngineSpec godot4{u"4.3-stable"_s, u"Godot_v4.3-stable_linux.x86_64.zip"_s, 4};
const EngineSpec godot3{u"3.5.3-stable"_s, u"Godot_v3.5.3-stable_x11.64.zip"_s, 3};

QString makeProject(const TestEnv &env, int configVersion, bool onlyIcon = false)
{
    const QString root = env.base() + u"/Game/Zorbit-master"_s;
    TestEnv::writeFile(root + u"/project.godot"_s,
                       "config_version=" + QByteArray::number(configVersion) +
                           "\n\n[application]\n\nconfig/name=\"Tiny\"\n"
                           "run/main_scene=\"res://Main.tscn\"\n");
    TestEnv::writeFile(root + u"/Main.tscn"_s,
                       "[gd_scene format=2]\n\n[node name=\"Main\" type=\"Node2D\"]\n");
    QImage icon(16, 16, QImage::Format_RGB32);
    icon.fill(Qt::red);
    icon.save(root + u"/icon.png"_s);
    if (!onlyIcon) {
        icon.save(root + u"/Track.PNG"_s, "PNG");
        TestEnv::writeFile(root + u"/sounds/engine.wav"_s, "RIFF");
    }
    return root;
}

AppModel::Config fastConfig()
{
    AppModel::Config config;
    config.importPollInterval = std::chrono::milliseconds(150);
    return config;
}

} // namespace

class TestImport : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void judgesByTheFiles_data();
    void judgesByTheFiles();
    void closesTheGodot3EditorOnceSettled();
    void closesAnEditorThatNeverSettlesAtTheDeadline();
    void watcherClosesOnlyWhenSettled_data();
    void watcherClosesOnlyWhenSettled();
    void cancelStopsSetup_data();
    void cancelStopsSetup();
    void engineThatCannotStart();
};

void TestImport::judgesByTheFiles_data()
{
    QTest::addColumn<QByteArray>("exitCode");
    QTest::addColumn<QByteArray>("skip");
    QTest::addColumn<QString>("message"); // empty: success

    QTest::newRow("complete") << QByteArray("0") << QByteArray() << QString();
    QTest::newRow("complete although the engine failed")
        << QByteArray("1") << QByteArray() << QString();
    QTest::newRow("one sidecar missing")
        << QByteArray("1") << QByteArray("engine.wav")
        << u"Godot did not finish preparing the game's files (exit code 1). Open \"Show log\" "
           u"for details."_s;
    QTest::newRow("upper-case extension missing")
        << QByteArray("0") << QByteArray("Track.PNG")
        << u"Godot did not finish preparing the game's files (exit code 0). Open \"Show log\" "
           u"for details."_s;
}

void TestImport::judgesByTheFiles()
{
    QFETCH(QByteArray, exitCode);
    QFETCH(QByteArray, skip);
    QFETCH(QString, message);

    TestEnv env;
    const QString root = makeProject(env, 5);
    ScopedEnv exit("FAKE_EXIT", exitCode), skipped("FAKE_SKIP", skip);
    AppModel model(fastConfig());
    auto outcome = runVoidTask(
        model.pipeline().importProject(fakeEngine(u"godot4-import.sh"_s), godot4, root));
    QCOMPARE(outcome.errorText(), message);
    QCOMPARE(QFileInfo::exists(env.base() + u"/imported.marker"_s), message.isEmpty());
    QCOMPARE(model.isImported(root), message.isEmpty());
    QCOMPARE(model.state(),
             AppState::settingUp(u"First-time setup, this can take a minute or more"_s));
    QCOMPARE(model.progressText(), u"Godot is preparing the game's files\u2026"_s);
    QVERIFY(!model.progress());
}

void TestImport::closesTheGodot3EditorOnceSettled()
{
    TestEnv env;
    const QString root = makeProject(env, 4);
    ScopedEnv step("FAKE_STEP_SECONDS", "0.2");
    AppModel model(fastConfig());
    QElapsedTimer clock;
    clock.start();
    auto outcome = runVoidTask(
        model.pipeline().importProject(fakeEngine(u"godot3-editor.sh"_s), godot3, root), 30000);
    QVERIFY2(outcome.ok(), qPrintable(outcome.errorText()));
    QVERIFY(QFileInfo::exists(env.base() + u"/imported.marker"_s));
    QTRY_VERIFY(model.log()->lines().contains(u"Import finished, closing the Godot editor."_s));
    QVERIFY(model.log()->lines().first().startsWith(u"Godot 3 prepares the game in its editor."_s));
}

void TestImport::closesAnEditorThatNeverSettlesAtTheDeadline()
{
    TestEnv env;
    const QString root = makeProject(env, 4);
    ScopedEnv step("FAKE_STEP_SECONDS", "0.03"); // a new entry between any two checks
    AppModel::Config config = fastConfig();
    config.importDeadline = std::chrono::milliseconds(2500);
    AppModel model(config);
    QElapsedTimer clock;
    clock.start();
    auto outcome = runVoidTask(
        model.pipeline().importProject(fakeEngine(u"godot3-never-finishes.sh"_s), godot3, root),
        30000);
    QVERIFY(clock.elapsed() >= 2400);
    QVERIFY(!model.log()->lines().contains(u"Import finished, closing the Godot editor."_s));
    // The files decide: the editor wrote every sidecar even though it never settled.
    QVERIFY2(outcome.ok(), qPrintable(outcome.errorText()));
    QVERIFY(QFileInfo::exists(env.base() + u"/imported.marker"_s));
}

void TestImport::watcherClosesOnlyWhenSettled_data()
{
    QTest::addColumn<bool>("complete");
    QTest::addColumn<bool>("growing");
    QTest::addColumn<bool>("settles");
    QTest::newRow("complete and steady") << true << false << true;
    QTest::newRow("complete but still growing") << true << true << false;
    QTest::newRow("steady but a sidecar missing") << false << false << false;
}

// The editor is closed after the fourth check, the first three in a row that find
// the import complete and the ".import" folder as it was; else at the deadline.
void TestImport::watcherClosesOnlyWhenSettled()
{
    QFETCH(bool, complete);
    QFETCH(bool, growing);
    QFETCH(bool, settles);

    TestEnv env;
    const QString root = makeProject(env, 4, true);
    TestEnv::writeFile(root + u"/.import/icon.png-1.stex"_s, "");
    if (complete)
        TestEnv::writeFile(root + u"/icon.png.import"_s, "[remap]\n");
    int added = 0;
    QTimer grow;
    connect(&grow, &QTimer::timeout, this,
            [&] { TestEnv::writeFile(root + u"/.import/more-"_s + QString::number(++added), ""); });
    if (growing)
        grow.start(100);

    constexpr int interval = 300, deadline = 2400;
    LogStore log;
    auto box = std::make_shared<ProcessBox>();
    const QString sleep = u"/bin/sleep"_s;
    const QStringList thirty{u"30"_s};
    QElapsedTimer clock;
    clock.start();
    ImportWatcher watcher(root, box, &log, std::chrono::milliseconds(interval),
                          std::chrono::milliseconds(deadline));
    auto outcome = runTask(runProcess(sleep, thirty, box, {}), 10000);
    const qint64 elapsed = clock.elapsed();
    QCOMPARE(*outcome.value, 15);
    if (settles) {
        QVERIFY2(elapsed >= 4 * interval - 60 && elapsed < 5 * interval - 30,
                 qPrintable(QString::number(elapsed)));
        QTRY_COMPARE(log.lines(), QStringList{u"Import finished, closing the Godot editor."_s});
    } else {
        QVERIFY2(elapsed >= deadline - 50, qPrintable(QString::number(elapsed)));
        QTest::qWait(2 * interval); // a late check must not speak either
        QVERIFY(log.lines().isEmpty());
    }
}

void TestImport::cancelStopsSetup_data()
{
    QTest::addColumn<QString>("engine");    // a fake engine, or "stubborn"
    QTest::addColumn<int>("cancelAfterMs"); // -1: before the step starts
    QTest::newRow("editor that never settles") << u"godot3-never-finishes.sh"_s << 700;
    QTest::newRow("before the engine starts") << u"godot3-never-finishes.sh"_s << -1;
    QTest::newRow("editor that ignores the terminate request") << u"stubborn"_s << 700;
}

void TestImport::cancelStopsSetup()
{
    QFETCH(QString, engine);
    QFETCH(int, cancelAfterMs);
    TestEnv env;
    const QString root = makeProject(env, 4);
    ScopedEnv step("FAKE_STEP_SECONDS", "0.03");
    QString exe = fakeEngine(engine);
    if (engine == u"stubborn") {
        exe = env.root() + u"/stubborn.sh"_s;
        TestEnv::writeFile(
            exe, "#!/bin/sh\ntrap '' TERM\necho stubborn\nwhile :; do sleep 0.05; done\n", true);
    }
    AppModel::Config config = fastConfig();
    config.stopGrace = std::chrono::milliseconds(300);
    AppModel model(config);
    if (cancelAfterMs < 0)
        model.cancel();
    else
        QTimer::singleShot(cancelAfterMs, &model, &AppModel::cancel);
    QElapsedTimer clock;
    clock.start();
    auto outcome = runVoidTask(model.pipeline().importProject(exe, godot3, root), 30000);
    QCOMPARE(outcome.errorText(), u"Setup was cancelled."_s);
    QVERIFY(clock.elapsed() < 5000);
    QVERIFY(!QFileInfo::exists(env.base() + u"/imported.marker"_s));
    model.log()->append(u"end"_s);
    QTRY_VERIFY(model.log()->lines().endsWith(u"end"_s));
    // A cancel before the start never runs the engine at all.
    QCOMPARE(model.log()->lines().size() > 2, cancelAfterMs >= 0);
}

void TestImport::engineThatCannotStart()
{
    TestEnv env;
    const QString root = makeProject(env, 5);
    AppModel model(fastConfig());
    auto outcome =
        runVoidTask(model.pipeline().importProject(env.root() + u"/no-engine"_s, godot4, root));
    QVERIFY(!outcome.ok());
    QVERIFY(!outcome.errorText().isEmpty());
    QVERIFY(!outcome.errorText().startsWith(u"Godot did not finish"_s));
    QVERIFY(!QFileInfo::exists(env.base() + u"/imported.marker"_s));
}

QTEST_MAIN(TestImport)
#include "tst_import.moc"
