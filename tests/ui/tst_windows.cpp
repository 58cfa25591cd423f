// The real windows, loaded from the QML module with the model in each state.
#include "app/appmodel.h"
#include "app/logtext.h"
#include "app/modelpreview.h"
#include "app/singleinstance.h"
#include "app/viewrules.h"
#include "app/windowsetup.h"
#include "testenv.h"

#include <QAccessible>
#include <QClipboard>
#include <QDBusConnection>
#include <QDir>
#include <QGuiApplication>
#include <QProcess>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickStyle>
#include <QQuickWindow>
#include <QSettings>
#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {
const QString game = QStringLiteral(VANTRO_TEST_DATA_DIR "/project/godot3/project.godot");

// A model over a private disk, with the real main window on top of it.
struct Fixture
{
    explicit Fixture(bool withGame = false, const QString &readme = {})
    {
        if (withGame) {
            TestEnv::writeFile(env.base() + u"/Game/Zorbit-master/project.godot"_s,
                               TestEnv::readFile(game));
            if (!readme.isEmpty())
                TestEnv::writeFile(env.base() + u"/Game/Zorbit-master/README.md"_s,
                                   readme.toUtf8());
        }
        model = std::make_unique<AppModel>(AppModel::Config{});
        registerWindowTypes(model.get());
        useBuiltInViews(engine);
        QQmlComponent component(&engine, QUrl(QString::fromLatin1(mainWindowUrl)));
        window.reset(qobject_cast<QQuickWindow *>(component.create()));
        if (!window)
            qFatal("%s", qPrintable(component.errorString()));
    }
    QQuickItem *item(const QString &name) const { return find(window.get(), name); }
    static QQuickItem *find(QQuickWindow *window, const QString &name)
    {
        auto *found = window->findChild<QQuickItem *>(name);
        return found ? found : window->contentItem()->findChild<QQuickItem *>(name);
    }
    QQuickWindow *sheet(const QString &title) const
    {
        for (QWindow *w : QGuiApplication::topLevelWindows())
            if (w->title() == title && w->isVisible())
                return qobject_cast<QQuickWindow *>(w);
        return nullptr;
    }

    TestEnv env;
    std::unique_ptr<AppModel> model;
    QQmlEngine engine;
    std::unique_ptr<QQuickWindow> window;
};

QString accessibleName(QObject *item)
{
    QAccessibleInterface *iface = QAccessible::queryAccessibleInterface(item);
    return iface ? iface->text(QAccessible::Name) : QString();
}

QQuickItem *button(QQuickItem *parent, const QString &text)
{
    const auto children = parent->childItems();
    for (QQuickItem *item : children) {
        if (item->inherits("QQuickAbstractButton") && item->isVisible() &&
            item->property("text").toString() == text)
            return item;
        if (QQuickItem *found = button(item, text))
            return found;
    }
    return nullptr;
}
QQuickItem *button(QQuickWindow *window, const QString &text)
{
    return button(window->contentItem(), text);
}

// Presses as a screen reader does: through the accessible press action.
void press(QQuickItem *button)
{
    QVERIFY2(button && button->isVisible() && button->isEnabled(), "button not pressable");
    QAccessibleInterface *iface = QAccessible::queryAccessibleInterface(button);
    QVERIFY(iface && iface->actionInterface());
    iface->actionInterface()->doAction(QAccessibleActionInterface::pressAction());
}

// The accessible names along the Tab chain, from the first focusable item round.
QStringList tabOrder(QQuickWindow *window)
{
    QStringList names;
    QQuickItem *first = window->contentItem()->nextItemInFocusChain(true);
    for (QQuickItem *item = first; item;) {
        names << accessibleName(item);
        item = item->nextItemInFocusChain(true);
        if (item == first || names.size() > 40)
            break;
    }
    return names;
}
} // namespace

class TestWindows : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QQuickStyle::setStyle(u"Fusion"_s);
        QAccessible::setActive(true);
    }
    void cleanupTestCase()
    {
        // The software scene graph frees a destroyed window's textures only when
        // another window renders; without one more, the last case's textures would
        // still be held at exit and count as leaks.
        QQuickWindow last;
        last.show();
        QTest::qWait(50);
    }
    void init()
    {
        QTest::failOnWarning(QRegularExpression(u"^(?!QStandardPaths: XDG_RUNTIME_DIR).*"_s));
    }
    void mainWindow_data();
    void mainWindow();
    void settings_data();
    void settings();
    void aboutAndLog_data();
    void aboutAndLog();
    void quitGuard_data();
    void quitGuard();
    void singleInstance();
};

void TestWindows::mainWindow_data()
{
    QTest::addColumn<AppState>("state");
    QTest::addColumn<QVariant>("progress");
    QTest::addColumn<bool>("withGame");
    QTest::addColumn<QString>("stateColor");
    QTest::addColumn<QString>("progressItem");
    QTest::addColumn<QString>("note");
    QTest::addColumn<QStringList>("tabOrder");

    const QString orange = u"#e07000"_s, green = u"#2e9d44"_s;
    const QStringList tail{u"Settings"_s, u"Show log"_s, u"About"_s};
    const QStringList picker{u"Windowed"_s, u"Fullscreen"_s};
    QTest::newRow("notDownloaded, no estimate")
        << AppState::notDownloaded() << QVariant() << false << QString() << QString()
        << u"Downloads the game and the Godot engine once, a one-time download. Nothing to type."_s
        << QStringList{u"Play"_s} + picker + tail;
    QTest::newRow("notDownloaded, estimate")
        << AppState::notDownloaded() << QVariant() << true << QString() << QString()
        << u"Downloads the game and the Godot engine once, about 96.3 MB. Nothing to type."_s
        << QStringList{u"Play"_s} + picker + tail;
    QTest::newRow("downloading, known size")
        << AppState::downloading(u"the game"_s) << QVariant(0.25) << false << QString()
        << u"progressBar"_s << QString() << QStringList{u"Cancel"_s} + tail;
    QTest::newRow("settingUp, unknown length")
        << AppState::settingUp(u"unpacking the game"_s) << QVariant() << true << QString()
        << u"spinner"_s << QString() << QStringList{u"Cancel"_s} + tail;
    QTest::newRow("starting") << AppState::starting() << QVariant() << true << QString()
                              << QString() << QString() << QStringList{u"Stop"_s} + tail;
    QTest::newRow("playing") << AppState::playing() << QVariant() << true << green << QString()
                             << QString() << QStringList{u"Stop"_s} + tail;
    QTest::newRow("ready") << AppState::ready() << QVariant() << true << green << QString()
                           << QString() << QStringList{u"Play"_s} + picker + tail;
    QTest::newRow("needs, with report")
        << AppState::needs(u"the game closed unexpectedly"_s) << QVariant() << true << orange
        << QString() << QString()
        << QStringList{u"Try again"_s} + picker + QStringList{u"Copy"_s} + tail;
}

void TestWindows::mainWindow()
{
    QFETCH(AppState, state);
    QFETCH(QVariant, progress);
    QFETCH(bool, withGame);
    QFETCH(QString, stateColor);
    QFETCH(QString, progressItem);
    QFETCH(QString, note);
    QFETCH(QStringList, tabOrder);

    Fixture f(withGame, u"# Zorbit\n\nZorbit is a racing game in space. More below.\n"_s);
    ModelPreview preview(*f.model);
    if (withGame)
        preview.downloadSizeText(u"about 96.3 MB"_s);
    preview.state(state).progress(progress.isValid() ? std::optional(progress.toDouble())
                                                     : std::nullopt,
                                  progress.isValid() ? u"1 MB of 4 MB"_s : QString());
    const QString report = u"The game ran for 2 seconds and exited with code 1.\nlast line"_s;
    if (state.kind() == AppState::Needs)
        preview.failureReport(report);

    QCOMPARE(f.item(u"stateTitle"_s)->property("text").toString(), state.title());
    const QColor shown = f.item(u"stateTitle"_s)->property("color").value<QColor>();
    QCOMPARE(shown, stateColor.isEmpty() ? f.window->property("palette")
                                               .value<QObject *>()
                                               ->property("windowText")
                                               .value<QColor>()
                                         : QColor(stateColor));
    for (const QString &name : {u"spinner"_s, u"progressBar"_s})
        QCOMPARE(f.item(name)->isVisible(), name == progressItem);
    QCOMPARE(f.item(u"downloadNote"_s)->isVisible(), !note.isEmpty());
    QCOMPARE(f.item(u"downloadNote"_s)->property("text").toString(), note);
    QCOMPARE(f.item(u"summary"_s)->property("text").toString(),
             withGame ? u"Zorbit is a racing game in space."_s
                      : u"A 3D racing game made with Godot. Details appear after the first "
                        u"download."_s);
    QCOMPARE(f.item(u"licence"_s)->isVisible(), withGame);
    // The project's one control row, or the sentence that stands in for the table.
    QCOMPARE(f.item(u"controlRows"_s)->property("count").toInt(),
             withGame ? f.model->info()->controls.size() : 0);
    QCOMPARE(f.item(u"controlsFallback"_s)->isVisible(), !withGame);
    QCOMPARE(f.item(u"controlsNote"_s)->isVisible(), withGame);
    QCOMPARE(f.item(u"displayPicker"_s)->isEnabled(), !state.isBusy());

    // Every visible control says what it shows, in the order Tab visits it.
    QCOMPARE(::tabOrder(f.window.get()), tabOrder);
    QCOMPARE(f.item(u"failureBox"_s)->isVisible(), state.kind() == AppState::Needs);
    if (state.kind() == AppState::Needs) {
        QGuiApplication::clipboard()->setText(u"something else"_s);
        press(button(f.window.get(), u"Copy"_s));
        QCOMPARE(QGuiApplication::clipboard()->text(), report);
    }
    if (!state.isBusy()) {
        press(button(f.window.get(), u"Fullscreen"_s));
        QVERIFY(f.model->fullscreen());
        QCOMPARE(QSettings().value(u"fullscreen"_s).toBool(), true);
    }
}

void TestWindows::settings_data()
{
    QTest::addColumn<bool>("busy");
    QTest::addColumn<bool>("fullscreen");
    QTest::addColumn<bool>("saves");

    QTest::newRow("idle, windowed, no saves") << false << false << false;
    QTest::newRow("idle, fullscreen, saves") << false << true << true;
    QTest::newRow("busy") << true << false << true;
}

void TestWindows::settings()
{
    QFETCH(bool, busy);
    QFETCH(bool, fullscreen);
    QFETCH(bool, saves);

    Fixture f(true);
    if (saves)
        QDir().mkpath(f.env.data() + u"/godot/app_userdata/Zorbit"_s);
    f.model->setResolution(u"1600x900"_s);
    f.model->setFullscreen(fullscreen);
    ModelPreview(*f.model).state(busy ? AppState::downloading(u"the game"_s) : AppState::ready());

    // Opened and closed with the keyboard alone.
    f.window->show();
    f.window->requestActivate();
    f.item(u"settingsButton"_s)->forceActiveFocus(Qt::TabFocusReason);
    QTest::keyClick(f.window.get(), Qt::Key_Space);
    QTRY_VERIFY(f.sheet(u"Settings"_s));
    QQuickWindow *sheet = f.sheet(u"Settings"_s);
    QCOMPARE(sheet->size(), QSize(480, 400));
    QCOMPARE(f.model->savesFolderExists(), saves); // read again on opening
    QTRY_VERIFY(f.model->viewRules()->installedSizeText() != u"\u2026"_s);

    auto item = [&](const QString &name) { return Fixture::find(sheet, name); };
    QCOMPARE(item(u"resolutionPicker"_s)->isEnabled(), !fullscreen);
    QCOMPARE(item(u"resolutionPicker"_s)->property("displayText").toString(), u"1600x900"_s);
    for (const QString &name : {u"updateButton"_s, u"reinstallButton"_s, u"removeButton"_s})
        QCOMPARE(item(name)->isEnabled(), !busy);
    QVERIFY(item(u"revealButton"_s)->isEnabled());
    QCOMPARE(item(u"savesButton"_s)->isEnabled(), saves);
    QCOMPARE(item(u"savesNote"_s)->isVisible(), !saves);
    QStringList order{u"Windowed"_s, u"Fullscreen"_s};
    if (!fullscreen)
        order << u"Resolution (windowed)"_s;
    if (!busy)
        order << u"Update the game"_s << u"Reinstall"_s << u"Remove everything"_s;
    order << u"Show in file manager"_s;
    if (saves)
        order << u"Show saves"_s;
    QCOMPARE(tabOrder(sheet), order << u"Done"_s);

    if (!fullscreen) {
        QMetaObject::invokeMethod(item(u"resolutionPicker"_s), "activated", Q_ARG(int, 3));
        QCOMPARE(QSettings().value(u"resolution"_s).toString(), u"1920x1080"_s);
    }
    if (!busy) {
        // Neither question acts without its confirming button.
        const QString size = f.model->viewRules()->installedSizeText();
        const AppState before = f.model->state();
        for (const auto &[button, question, message] :
             {std::tuple<QString, QString, QString>{
                  u"removeButton"_s, u"removeQuestion"_s,
                  u"This deletes the downloaded game and engine and frees "_s + size +
                      u". Save files are not touched."_s},
              std::tuple<QString, QString, QString>{
                  u"reinstallButton"_s, u"reinstallQuestion"_s,
                  u"This downloads the game and the engine again ("_s + size +
                      u" is installed now)."_s}}) {
            press(item(button));
            QObject *dialog = sheet->findChild<QObject *>(question);
            QTRY_VERIFY(dialog->property("opened").toBool());
            QCOMPARE(dialog->property("message").toString(), message);
            QTest::keyClick(sheet, Qt::Key_Escape);
            QTRY_VERIFY(!dialog->property("visible").toBool());
            QVERIFY(sheet->isVisible());
            QVERIFY(QFileInfo::exists(f.env.base() + u"/Game/Zorbit-master/project.godot"_s));
            QCOMPARE(f.model->state(), before);
        }
    }
    QTest::keyClick(sheet, Qt::Key_Return);
    QTRY_VERIFY(!f.sheet(u"Settings"_s));
}

void TestWindows::aboutAndLog_data()
{
    QTest::addColumn<bool>("withGame");
    QTest::addColumn<int>("lines");
    QTest::addColumn<QString>("licence");

    QTest::newRow("before any download, empty log")
        << false << 0 << u"Unlicense (public domain), per the repository"_s;
    QTest::newRow("game without licence file, a few lines")
        << true << 3 << u"No licence file found in the repository"_s;
    QTest::newRow("log over its limit") << true << 3005 << QString();
}

void TestWindows::aboutAndLog()
{
    QFETCH(bool, withGame);
    QFETCH(int, lines);
    QFETCH(QString, licence);

    Fixture f(withGame);
    QStringList expected;
    for (int i = 0; i < lines; ++i)
        f.model->log()->append(u"line %1"_s.arg(i));
    for (int i = std::max(0, lines - 3000); i < lines; ++i)
        expected << u"line %1"_s.arg(i);
    QTRY_COMPARE(f.model->log()->lines().size(), expected.size());

    if (!licence.isEmpty()) {
        f.item(u"content"_s)->setProperty("showAbout", true);
        QTRY_VERIFY(f.sheet(u"About"_s));
        QQuickWindow *about = f.sheet(u"About"_s);
        QCOMPARE(about->size(), QSize(480, 352));
        QCOMPARE(Fixture::find(about, u"aboutLicence"_s)->property("text").toString(),
                 u"The game \"Zorbit\" is made by orrik (GitHub user). Licence: "_s + licence +
                     u"."_s);
        QCOMPARE(accessibleName(Fixture::find(about, u"repositoryLink"_s)),
                 u"github.com/orrik/Zorbit"_s);
        QCOMPARE(f.model->viewRules()->basedOnText(),
                 u"Based on https://github.com/orrik/Zorbit, Unlicense."_s);
        AppModel::Config odd;
        odd.gameArchiveUrl = u"not an address"_s;
        QCOMPARE(ViewRules::repositoryUrl(odd.gameArchiveUrl), QUrl::fromLocalFile(u"/"_s));
        press(Fixture::find(about, u"doneButton"_s));
        QTRY_VERIFY(!f.sheet(u"About"_s));
    }

    f.item(u"content"_s)->setProperty("showLog", true);
    QTRY_VERIFY(f.sheet(u"Log"_s));
    QQuickWindow *log = f.sheet(u"Log"_s);
    QCOMPARE(log->size(), QSize(640, 420));
    QObject *area = log->findChild<QObject *>(u"logText"_s);
    QCOMPARE(area->property("shownText").toString(),
             expected.isEmpty() ? LogText::emptyText() : expected.join(u'\n'));
    QGuiApplication::clipboard()->setText(u"something else"_s);
    press(Fixture::find(log, u"copyButton"_s));
    QCOMPARE(QGuiApplication::clipboard()->text(), expected.join(u'\n'));

    if (lines > 3000) {
        // The reader's place holds while lines come and go, even when all change.
        QQuickItem *list = Fixture::find(log, u"logLines"_s);
        list->setProperty("contentY", 20000.0);
        const auto depth = [list] {
            return list->property("contentY").toDouble() - list->property("originY").toDouble();
        };
        for (const int count : {1000, 4000}) {
            const double before = depth(), top = list->property("contentY").toDouble();
            for (int i = 0; i < count; ++i)
                f.model->log()->append(u"new %1"_s.arg(i));
            QTRY_VERIFY(
                area->property("shownText").toString().endsWith(u"new %1"_s.arg(count - 1)));
            // Some lines dropped: the same lines stay in view. All replaced: same depth.
            QTRY_COMPARE(count < 3000 ? list->property("contentY").toDouble() : depth(),
                         count < 3000 ? top : before);
        }
        expected = f.model->log()->lines();
    }
    // The open window follows the log: new lines, dropped lines, and a clear.
    for (int i = 0; i < 5; ++i) {
        f.model->log()->append(u"more %1"_s.arg(i));
        expected << u"more %1"_s.arg(i);
    }
    if (expected.size() > 3000)
        expected = expected.sliced(expected.size() - 3000);
    QTRY_COMPARE(area->property("shownText").toString(), expected.join(u'\n'));
    f.model->log()->clear();
    QTRY_COMPARE(area->property("shownText").toString(), LogText::emptyText());
    QVERIFY(Fixture::find(log, u"emptyLog"_s)->isVisible());
    QTest::keyClick(log, Qt::Key_Return);
    QTRY_VERIFY(!f.sheet(u"Log"_s));
}

void TestWindows::quitGuard_data()
{
    QTest::addColumn<AppState>("state");
    QTest::addColumn<bool>("quitAnswer");
    QTest::addColumn<bool>("asks");

    QTest::newRow("downloading quits at once")
        << AppState::downloading(u"the game"_s) << false << false;
    QTest::newRow("playing, keep playing") << AppState::playing() << false << true;
    QTest::newRow("starting, quit and close") << AppState::starting() << true << true;
}

void TestWindows::quitGuard()
{
    QFETCH(AppState, state);
    QFETCH(bool, quitAnswer);
    QFETCH(bool, asks);

    Fixture f;
    ModelPreview(*f.model).state(state);
    f.window->show();
    QSignalSpy quit(&f.engine, &QQmlEngine::quit);
    f.window->close();
    QObject *guard = f.window->findChild<QObject *>(u"quitGuard"_s);
    QCOMPARE(guard->property("visible").toBool(), asks);
    if (asks) {
        QCOMPARE(guard->property("title").toString(), u"The game is still running"_s);
        QCOMPARE(guard->property("message").toString(), u"Quitting will close the game too."_s);
        QCOMPARE(guard->property("confirmText").toString(), u"Quit and close the game"_s);
        QCOMPARE(guard->property("cancelText").toString(), u"Keep playing"_s);
        QTRY_VERIFY(guard->property("opened").toBool());
        // Return takes the default answer; Escape keeps playing.
        QTest::keyClick(f.window.get(), quitAnswer ? Qt::Key_Return : Qt::Key_Escape);
        QTRY_VERIFY(!guard->property("visible").toBool());
    }
    QCOMPARE(quit.size(), asks && !quitAnswer ? 0 : 1);
    QCOMPARE(f.window->isVisible(), asks && !quitAnswer);
}

void TestWindows::singleInstance()
{
    QCOMPARE(SingleInstance(QDBusConnection(u"none"_s)).claim(), SingleInstance::Claim::NoBus);

    QProcess daemon;
    daemon.start(u"dbus-daemon"_s, {u"--session"_s, u"--nofork"_s, u"--print-address=1"_s});
    if (!daemon.waitForStarted())
        QSKIP("dbus-daemon is not installed");
    QVERIFY(daemon.waitForReadyRead(5000));
    const QString address = QString::fromUtf8(daemon.readLine().trimmed());
    {
        SingleInstance first(QDBusConnection::connectToBus(address, u"first"_s));
        SingleInstance second(QDBusConnection::connectToBus(address, u"second"_s));
        QSignalSpy raised(&first, &SingleInstance::activationRequested);
        QCOMPARE(first.claim(), SingleInstance::Claim::First);
        QCOMPARE(second.claim(), SingleInstance::Claim::AlreadyRunning);
        QCOMPARE(raised.size(), 1);
    }
    QDBusConnection::disconnectFromBus(u"first"_s);
    QDBusConnection::disconnectFromBus(u"second"_s);
    daemon.terminate();
    daemon.waitForFinished();
}

QTEST_MAIN(TestWindows)
#include "tst_windows.moc"
