// The real windows, loaded from the QML module with the model in each state, driven
// by keys, pointer and the screen reader's interface.
#include "acquisition/gameversion.h"
#include "app/appmodel.h"
#include "app/logtext.h"
#include "app/modelpreview.h"
#include "app/viewrules.h"
#include "app/windowsetup.h"
#include "testenv.h"
#include "ui/controlaccessible.h"

#include <QAccessible>
#include <QClipboard>
#include <QGuiApplication>
#include <QPalette>
#include <QPointer>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickStyle>
#include <QQuickWindow>
#include <QSettings>
#include <QSignalSpy>
#include <QTest>
#include <cmath>

using namespace Qt::StringLiterals;

namespace {
// A model over a private disk, with the real main window on top of it, shown.
struct Fixture
{
    explicit Fixture(bool withGame = false)
    {
        const QString folder = env.base() + u"/Game/Zorbit-master/"_s;
        if (withGame) {
            TestEnv::writeFile(folder + u"README.md"_s, "# Zorbit\n\nZorbit is a racing game in "
                                                        "space. More below.\n");
            QFile::copy(QStringLiteral(VANTRO_TEST_DATA_DIR "/project/godot3/project.godot"),
                        folder + u"project.godot"_s);
        }
        model = std::make_unique<AppModel>(AppModel::Config{});
        registerWindowTypes(model.get());
        useBuiltInViews(engine);
        QQmlComponent component(&engine, QUrl(QString::fromLatin1(mainWindowUrl)));
        window.reset(qobject_cast<QQuickWindow *>(component.create()));
        if (!window)
            qFatal("%s", qPrintable(component.errorString()));
        window->show();
        window->requestActivate();
        (void)QTest::qWaitForWindowActive(window.get());
    }
    QQuickItem *item(const QString &name) const { return find(window.get(), name); }
    QQuickItem *button(const QString &text, QQuickItem *parent = nullptr) const
    {
        for (QQuickItem *item : (parent ? parent : window->contentItem())->childItems()) {
            if (item->inherits("QQuickAbstractButton") && item->isVisible() &&
                item->property("text").toString() == text)
                return item;
            if (QQuickItem *found = button(text, item))
                return found;
        }
        return nullptr;
    }
    QString text(const QString &name) const { return item(name)->property("text").toString(); }
    // Items made only while shown count as hidden when they are not there.
    bool shows(const QString &name) const { return item(name) && item(name)->isVisible(); }
    static QQuickItem *find(QQuickWindow *window, const QString &name)
    {
        return window->findChild<QQuickItem *>(name);
    }
    // A sheet, opened by its flag (e.g. "showLog") unless the window opened it; it
    // goes (null) when closed.
    QPointer<QQuickWindow> sheet(const QString &name, bool open = true) const
    {
        if (open)
            item(u"content"_s)->setProperty((u"show"_s + name).toLatin1(), true);
        return item(name.toLower() + u"Sheet"_s)->property("item").value<QQuickWindow *>();
    }

    TestEnv env;
    std::unique_ptr<AppModel> model;
    QQmlEngine engine;
    std::unique_ptr<QQuickWindow> window;
};

QAccessibleInterface *accessible(QObject *item)
{
    return QAccessible::queryAccessibleInterface(item);
}

// Presses as a screen reader does: through the accessible press action, which a
// greyed control does not offer.
bool press(QQuickItem *control)
{
    const QString press = QAccessibleActionInterface::pressAction();
    QAccessibleActionInterface *actions = accessible(control)->actionInterface();
    const bool offered = actions && actions->actionNames().contains(press);
    if (offered)
        actions->doAction(press);
    return offered;
}

// The accessible names along the Tab chain, from the first focusable item round.
QStringList tabOrder(QQuickWindow *window)
{
    QStringList names;
    QQuickItem *first = window->contentItem()->nextItemInFocusChain(true);
    for (QQuickItem *item = first; item && names.size() < 40;) {
        names << accessible(item)->text(QAccessible::Name);
        if ((item = item->nextItemInFocusChain(true)) == first)
            break;
    }
    return names;
}

// The WCAG contrast the window shows of `item`: for text, its box's most distinct pixel
// (a glyph's core) against the colour that covers most of the box; for a line `outside`
// pixels left of the item, its two columns against the three beyond, mid-height.
double drawnContrast(QQuickWindow *window, QQuickItem *item, int outside)
{
    const QImage shot = window->grabWindow();
    const QRect box = item->mapRectToScene(item->boundingRect()).toRect();
    const QRect line(box.left() - outside, box.top() + box.height() / 4, 2, box.height() / 2);
    const QRect ink = outside < 0 ? box.adjusted(2, 2, -2, -2) : line;
    const QRect ground = outside < 0 ? ink : line.adjusted(-3, 0, -2, 0);
    const auto luminance = [&](int x, int y) { // plus WCAG's 0.05
        const auto linear = [](double v) {
            return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
        };
        const QColor c = shot.pixelColor(x, y);
        return 0.2126 * linear(c.redF()) + 0.7152 * linear(c.greenF()) +
               0.0722 * linear(c.blueF()) + 0.05;
    };
    QHash<QRgb, int> counts;
    QPoint most = ground.topLeft();
    for (int y = ground.top(); y <= ground.bottom(); ++y)
        for (int x = ground.left(); x <= ground.right(); ++x)
            if (++counts[shot.pixel(x, y)] > counts[shot.pixel(most)])
                most = {x, y};
    double best = 1;
    for (int y = ink.top(); y <= ink.bottom(); ++y)
        for (int x = ink.left(); x <= ink.right(); ++x) {
            const double a = luminance(x, y), b = luminance(most.x(), most.y());
            best = std::max(best, std::max(a, b) / std::min(a, b));
        }
    return best;
}

// A line of the log window, scrolled into view; where the caret goes before one of
// its columns.
QQuickItem *logLine(QQuickWindow *log, int row)
{
    QQuickItem *list = Fixture::find(log, u"logLines"_s), *line = nullptr;
    QMetaObject::invokeMethod(list, "positionViewAtIndex", Q_ARG(int, row), Q_ARG(int, 4));
    QMetaObject::invokeMethod(list, "itemAtIndex", Q_RETURN_ARG(QQuickItem *, line),
                              Q_ARG(int, row));
    return line;
}
QPoint charPoint(QQuickWindow *log, int row, int column)
{
    QRectF box;
    QQuickItem *line = logLine(log, row);
    QMetaObject::invokeMethod(line, "positionToRectangle", Q_RETURN_ARG(QRectF, box),
                              Q_ARG(int, column));
    return line->mapToScene(box.center()).toPoint();
}
} // namespace

class TestWindows : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QQuickStyle::setStyle(u"Fusion"_s);
        installControlAccessibility();
        QAccessible::setActive(true);
    }
    void cleanup() { QGuiApplication::setPalette(QPalette()); }
    void cleanupTestCase()
    {
        // One more window renders, so that the software scene graph frees the last
        // case's textures: held at exit, they would count as leaks.
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
    void sheets_data();
    void sheets();
};

void TestWindows::mainWindow_data()
{
    QTest::addColumn<AppState>("state");
    QTest::addColumn<QVariant>("progress");
    QTest::addColumn<bool>("withGame");
    QTest::addColumn<QString>("note"); // under the button, or under the progress while set up
    QTest::addColumn<QString>("action");

    const auto row = [](const char *name, const AppState &state, const QVariant &progress,
                        bool withGame, const QString &note, const QString &action) {
        QTest::newRow(name) << state << progress << withGame << note << action;
    };
    const QString once = u"Downloads the game and the Godot engine once, "_s;
    row("notDownloaded, no estimate", AppState::notDownloaded(), {}, false,
        once + u"a one-time download. Nothing to type."_s, u"Play"_s);
    row("notDownloaded, estimate", AppState::notDownloaded(), {}, true,
        once + u"about 96.3\u00a0MB. Nothing to type."_s, u"Play"_s);
    row("downloading, known size", AppState::downloading(u"the game"_s), 0.25, false, {},
        u"Cancel"_s);
    row("downloading, no byte count", AppState::downloading(u"checksum for Godot"_s), {}, true, {},
        u"Cancel"_s);
    row("settingUp in the editor", AppState::settingUp(u"importing"_s), {}, true,
        u"Godot 3 prepares the game in its editor. A Godot window opens for a moment and is "
        u"closed automatically; please leave it alone."_s,
        u"Cancel"_s);
    row("starting", AppState::starting(), {}, true, {}, u"Stop"_s);
    row("playing", AppState::playing(), {}, true, {}, u"Stop"_s);
    row("ready", AppState::ready(), {}, true, {}, u"Play"_s);
    row("needs, with a long report", AppState::needs(u"the game closed unexpectedly"_s), {}, true,
        {}, u"Try again"_s);
}

void TestWindows::mainWindow()
{
    QFETCH(AppState, state);
    QFETCH(QVariant, progress);
    QFETCH(bool, withGame);
    QFETCH(QString, note);
    QFETCH(QString, action);

    const auto kind = state.kind();
    const bool settingUp = kind == AppState::SettingUp, needs = kind == AppState::Needs;
    const QString progressItem = kind != AppState::Downloading && !settingUp ? QString()
                                 : progress.isValid()                        ? u"progressBar"_s
                                                                             : u"spinner"_s;
    const QString report = u"one of the game's last words\n"_s.repeated(30).chopped(1);

    Fixture f(withGame);
    // Pressed by keyboard: whatever the button turns into keeps the focus.
    QQuickItem *actionButton = f.item(u"actionButton"_s);
    actionButton->forceActiveFocus(Qt::TabFocusReason);
    ModelPreview(*f.model)
        .downloadSizeText(withGame ? std::optional(u"about 96.3\u00a0MB"_s) : std::nullopt)
        .state(state)
        .progress(progress.isValid() ? std::optional(progress.toDouble()) : std::nullopt)
        .setupNote(settingUp ? note : QString())
        .failureReport(needs ? std::optional(report) : std::nullopt)
        .versions(withGame ? std::optional(QString(40, u'a')) : std::nullopt, QString(40, u'b'));
    QVERIFY(actionButton->property("visualFocus").toBool()); // never left it, ring and all
    f.window->grabWindow();                                  // lays the page out

    QCOMPARE(f.text(u"stateTitle"_s), state.title());
    // A reader hears a busy progress bar, or a bar with its value.
    QCOMPARE(f.shows(u"spinner"_s), progressItem == u"spinner"_s);
    QCOMPARE(f.shows(u"progressBar"_s), progressItem == u"progressBar"_s);
    if (QAccessibleInterface *shown =
            progressItem.isEmpty() ? nullptr : accessible(f.item(progressItem))) {
        QCOMPARE(shown->role(), QAccessible::ProgressBar);
        QCOMPARE(bool(shown->state().busy), !progress.isValid());
        QCOMPARE(shown->valueInterface() ? shown->valueInterface()->currentValue() : QVariant(),
                 progress);
    }
    // A newer game is told of, to screen readers too, while the player can update.
    const bool newer = withGame && (needs || kind == AppState::Ready);
    QCOMPARE(f.shows(u"updateNote"_s), newer);
    if (newer)
        QCOMPARE(accessible(f.item(u"updateNote"_s))->text(QAccessible::Name),
                 u"A newer version of the game is available. Update it in Settings."_s);
    QCOMPARE(f.shows(u"setupNote"_s), settingUp);
    QCOMPARE(f.shows(u"downloadNote"_s), !settingUp && !note.isEmpty());
    QCOMPARE(f.text(settingUp ? u"setupNote"_s : u"downloadNote"_s), note);
    QCOMPARE(f.text(u"summary"_s), withGame ? u"Zorbit is a racing game in space."_s
                                            : u"A 3D racing game made with Godot. Details "
                                              u"appear after the first download."_s);
    // The project's licence and six control rows, or the sentence that stands in
    // for the table.
    QCOMPARE(f.shows(u"licence"_s), withGame);
    QCOMPARE(f.item(u"controlRows"_s)->property("count").toInt(), withGame ? 6 : 0);
    QCOMPARE(f.shows(u"controlsFallback"_s), !withGame);
    QCOMPARE(f.shows(u"controlsNote"_s), withGame);
    // The picker's segments are radio buttons, greyed for every input while busy.
    for (const QString &segment : {u"Windowed"_s, u"Fullscreen"_s}) {
        QAccessibleInterface *shown = accessible(f.button(segment));
        QCOMPARE(shown->role(), QAccessible::RadioButton);
        QCOMPARE(bool(shown->state().checked), segment == u"Windowed"_s);
        QCOMPARE(bool(shown->state().disabled), state.isBusy());
    }

    // Every visible control says what it shows, in the order Tab visits it; the page
    // scrolls to each as it takes the focus, and a long report scrolls in its box.
    QStringList order{action};
    if (!state.isBusy())
        order << u"Windowed"_s << u"Fullscreen"_s;
    if (needs)
        order << u"Failure report"_s << u"Copy"_s;
    QCOMPARE(tabOrder(f.window.get()), order << u"Settings"_s << u"Show log"_s << u"About"_s);
    QCOMPARE(f.shows(u"failureBox"_s), needs);
    QVERIFY(!needs || f.item(u"failureBox"_s)->height() < 300);
    QQuickItem *last = f.item(u"aboutButton"_s);
    last->forceActiveFocus(Qt::TabFocusReason);
    QVERIFY(last->mapRectToScene(last->boundingRect()).bottom() <= f.window->height());
    if (needs) {
        QGuiApplication::clipboard()->setText(u"something else"_s);
        QVERIFY(press(f.button(u"Copy"_s)));
        QCOMPARE(QGuiApplication::clipboard()->text(), report);
    }
    QCOMPARE(press(f.button(u"Fullscreen"_s)), !state.isBusy());
    QCOMPARE(QSettings().value(u"fullscreen"_s).toBool(), !state.isBusy());

    // WCAG AA, drawn, on the desktop's palette (light, or qt6ct's dark) and a dark one
    // handed over: text 4.5:1, lines 3:1 (a border; the ring 4 px out of the focused
    // button). The state line is orange when something is needed, green when ready or
    // playing, else as text.
    const int hue = needs ? 30 : kind == AppState::Ready || kind == AppState::Playing ? 130 : -1;
    const std::tuple<QString, int, double> rows[] = {
        {u"stateTitle"_s, -1, 4.5},    {u"actionButton"_s, -1, 4.5},     {u"licence"_s, -1, 4.5},
        {u"controlsNote"_s, -1, 4.5},  {u"controlsFallback"_s, -1, 4.5}, {u"updateNote"_s, -1, 4.5},
        {u"settingsButton"_s, 0, 3.0}, {u"aboutButton"_s, 4, 3.0},       {u"spinner"_s, -1, 3.0}};
    QTest::qWait(f.shows(u"spinner"_s) ? 300 : 0); // the spinner fades in
    for (const bool dark : {false, true}) {
        if (dark)
            applyDarkPalette();
        // The window is drawn dark too (and qt6ct's scheme is dark from the start).
        QCOMPARE(qGray(f.window->grabWindow().pixel(2, 2)) < 64,
                 dark || qgetenv("QT_QPA_PLATFORMTHEME") == "qt6ct");
        for (const auto &[item, outside, minimum] : rows) {
            if (!f.shows(item))
                continue;
            QMetaObject::invokeMethod(f.item(u"content"_s), "reveal",
                                      Q_ARG(QVariant, QVariant::fromValue(f.item(item))));
            const double ratio = drawnContrast(f.window.get(), f.item(item), outside);
            QVERIFY2(ratio >= minimum, qPrintable(item + u" %1:1"_s.arg(ratio, 0, 'f', 2)));
        }
        const int shown = f.item(u"stateTitle"_s)->property("color").value<QColor>().hslHue();
        QVERIFY(hue < 0 ? shown < 0 : std::abs(shown - hue) < 25);
    }

    // Closing the window quits at once, or after a question while the game starts
    // (answered with Return: quit) or runs (Escape: keep playing).
    QSignalSpy quits(&f.engine, &QQmlEngine::quit);
    f.window->close();
    if (action == u"Stop"_s) {
        QTRY_VERIFY(f.window->findChild<QObject *>(u"quitGuard"_s)->property("opened").toBool());
        QTest::keyClick(f.window.get(),
                        kind == AppState::Starting ? Qt::Key_Return : Qt::Key_Escape);
    }
    QTRY_COMPARE(quits.size(), kind == AppState::Playing ? 0 : 1);
    QCOMPARE(f.window->isVisible(), kind == AppState::Playing);
}

void TestWindows::sheets_data()
{
    QTest::addColumn<bool>("withGame"); // a game without a licence file, or none yet
    QTest::addColumn<bool>("busy");
    QTest::addColumn<bool>("fullscreen");
    QTest::addColumn<bool>("saves");
    QTest::addColumn<int>("lines");

    QTest::newRow("before any download, idle, windowed, empty log")
        << false << false << false << false << 0;
    QTest::newRow("idle, fullscreen, saves, a few lines") << true << false << true << true << 3;
    QTest::newRow("playing, log over its limit") << true << true << false << true << 3005;
}

// Settings, About and the log, each opened and closed with the keyboard alone.
void TestWindows::sheets()
{
    QFETCH(bool, withGame);
    QFETCH(bool, busy);
    QFETCH(bool, fullscreen);
    QFETCH(bool, saves);
    QFETCH(int, lines);

    Fixture f(withGame);
    if (saves)
        TestEnv::writeFile(f.env.data() + u"/godot/app_userdata/Zorbit/save"_s, {});
    f.model->setResolution(u"1600x900"_s);
    f.model->setFullscreen(fullscreen);
    // On disk: the sheet reads the disk again when it opens.
    QVERIFY(GameVersion::write(f.model->layout(), QString(40, u'a')));
    ModelPreview(*f.model)
        .state(busy ? AppState::playing() : AppState::ready())
        .versions(QString(40, u'a'), QString(40, withGame ? u'b' : u'a'));
    QStringList expected; // the last 3000 lines
    for (int i = 0; i < lines; ++i)
        f.model->log()->append(i < lines - 3000 ? u"line %1"_s.arg(i)
                                                : expected.emplace_back(u"line %1"_s.arg(i)));

    // Settings looks for the saves folder again and measures the installed size.
    f.item(u"settingsButton"_s)->forceActiveFocus(Qt::TabFocusReason);
    QTest::keyClick(f.window.get(), Qt::Key_Space);
    QPointer<QQuickWindow> sheet = f.sheet(u"Settings"_s, false);
    QTRY_VERIFY(f.model->viewRules()->installedSizeText() != u"\u2026"_s);
    auto item = [&](const QString &name) { return Fixture::find(sheet, name); };
    // A reader reads the stored choice, and then the new one, as the picker's text.
    const auto choice = [&] {
        auto *text = accessible(item(u"resolutionPicker"_s))->textInterface();
        return text ? text->text(0, text->characterCount()) : QString();
    };
    QCOMPARE(choice(), u"1600x900"_s);
    QCOMPARE(item(u"savesNote"_s)->isVisible(), !saves);
    QCOMPARE(item(u"updateDetail"_s)->property("text").toString(),
             withGame ? u"A newer version is available (installed aaaaaaa, latest bbbbbbb)."_s
                      : QString());
    // Greyed means greyed for a screen reader too, and out of the Tab chain.
    QStringList order{u"Windowed"_s, u"Fullscreen"_s};
    for (const auto &[name, text, on] :
         {std::tuple(u"resolutionPicker"_s, u"Resolution (windowed)"_s, !fullscreen),
          {u"updateButton"_s, u"Update the game"_s, !busy},
          {u"reinstallButton"_s, u"Reinstall"_s, !busy},
          {u"removeButton"_s, u"Remove everything"_s, !busy},
          {u"revealButton"_s, u"Show in file manager"_s, true},
          {u"savesButton"_s, u"Show saves"_s, saves}}) {
        QVERIFY2(bool(accessible(item(name))->state().disabled) != on, qPrintable(name));
        order << (on ? QStringList{text} : QStringList());
    }
    QCOMPARE(tabOrder(sheet), order << u"Done"_s);
    if (!fullscreen) {
        QMetaObject::invokeMethod(item(u"resolutionPicker"_s), "activated", Q_ARG(int, 3));
        QCOMPARE(QSettings().value(u"resolution"_s).toString(), u"1920x1080"_s);
        QCOMPARE(choice(), u"1920x1080"_s);
    }
    // A screen reader's press on a greyed button does nothing; neither question acts
    // without its confirming button; Return presses the focused button, not "Done".
    const QString size = f.model->viewRules()->installedSizeText();
    const AppState before = f.model->state();
    QObject *remove = sheet->findChild<QObject *>(u"removeQuestion"_s);
    QObject *reinstall = sheet->findChild<QObject *>(u"reinstallQuestion"_s);
    QCOMPARE(press(item(u"removeButton"_s)), !busy);
    QCOMPARE(remove->property("visible").toBool(), !busy);
    QCOMPARE(remove->property("message").toString(),
             u"This deletes the downloaded game and engine and frees "_s + size +
                 u". Save files are not touched."_s);
    if (!busy) {
        QTest::keyClick(sheet, Qt::Key_Escape);
        item(u"reinstallButton"_s)->forceActiveFocus(Qt::TabFocusReason);
        QTest::keyClick(sheet, Qt::Key_Return);
        QTRY_VERIFY(reinstall->property("opened").toBool());
        QCOMPARE(reinstall->property("message").toString(),
                 u"This downloads the game and the engine again ("_s + size +
                     u" is installed now)."_s);
        QTest::keyClick(sheet, Qt::Key_Escape);
        item(u"reinstallButton"_s)->setFocus(false);
    }
    QTRY_VERIFY(!remove->property("visible").toBool() && !reinstall->property("visible").toBool());
    QCOMPARE(f.model->state(), before);
    // With no button focused, Return is "Done".
    QCOMPARE(sheet->activeFocusItem(), item(u"sheetBody"_s));
    QTest::keyClick(sheet, Qt::Key_Return);
    QTRY_VERIFY(!sheet);

    QPointer<QQuickWindow> about = f.sheet(u"About"_s);
    QCOMPARE(Fixture::find(about, u"aboutLicence"_s)->property("text").toString(),
             u"The game \"Zorbit\" is made by orrik (GitHub user). Licence: "_s +
                 (withGame ? u"No licence file found in the repository"_s
                           : u"Unlicense (public domain), per the repository"_s) +
                 u"."_s);
    QCOMPARE(accessible(Fixture::find(about, u"repositoryLink"_s))->text(QAccessible::Name),
             u"github.com/orrik/Zorbit"_s);
    QCOMPARE(Fixture::find(about, u"versionLine"_s)->property("text").toString(),
             u"Game version: aaaaaaa"_s);
    QVERIFY(press(Fixture::find(about, u"doneButton"_s)));
    QTRY_VERIFY(!about);

    QPointer<QQuickWindow> log = f.sheet(u"Log"_s);
    auto *text = log->findChild<LogText *>(u"logText"_s);
    QCOMPARE(text->shownText(), expected.isEmpty() ? LogText::emptyText() : expected.join(u'\n'));
    QCOMPARE(tabOrder(log), (QStringList{u"Log"_s, u"Copy"_s, u"Done"_s}));
    QGuiApplication::clipboard()->setText(u"something else"_s);
    QVERIFY(press(Fixture::find(log, u"copyButton"_s)));
    QCOMPARE(QGuiApplication::clipboard()->text(), expected.join(u'\n'));
    // One selection across lines, by pointer and keys: a drag from row 999 (line
    // 1004), Shift+click and Shift+arrows to row 1002 (or all of a short log); copied
    // by the context menu and the keys, read by a screen reader as one text.
    QString selected = expected.join(u'\n');
    QGuiApplication::clipboard()->setText(u"something else"_s);
    if (lines > 3000) {
        const QPoint to = charPoint(log, 1002, 0), from = charPoint(log, 999, 2);
        QTest::mousePress(log, Qt::LeftButton, {}, from);
        QTest::mouseMove(log, charPoint(log, 1001, 2));
        QTest::mouseRelease(log, Qt::LeftButton, {}, charPoint(log, 1001, 2));
        QTest::mouseClick(log, Qt::LeftButton, Qt::ShiftModifier, to);
        for (const Qt::Key key : {Qt::Key_Right, Qt::Key_Right, Qt::Key_Up, Qt::Key_Down})
            QTest::keyClick(log, key, Qt::ShiftModifier);
        selected = u"ne 1004\nline 1005\nline 1006\nli"_s;
        QCOMPARE(logLine(log, 1000)->property("selectedText").toString(), u"line 1005"_s);
        QTest::mouseClick(log, Qt::RightButton, {}, charPoint(log, 1000, 1));
        auto *copy = log->findChild<QQuickItem *>(u"logCopy"_s);
        QTRY_VERIFY(copy->isVisible());
        QTest::mouseClick(log, Qt::LeftButton, {}, copy->mapToScene({4, 4}).toPoint());
        QCOMPARE(QGuiApplication::clipboard()->text(), selected);
    } else {
        QTest::keyClick(log, Qt::Key_A, Qt::ControlModifier);
    }
    QCOMPARE(text->selectedText(), selected);
    QTest::keyClick(log, Qt::Key_C, Qt::ControlModifier);
    QCOMPARE(QGuiApplication::clipboard()->text(),
             selected.isEmpty() ? u"something else"_s : selected);
    QAccessibleTextInterface *reader =
        accessible(Fixture::find(log, u"logReader"_s))->textInterface();
    int start = 0, end = 0;
    reader->selection(0, &start, &end);
    QCOMPARE(reader->text(start, end), selected);

    if (lines > 3000) {
        // The reader's place holds while lines come and go, even when all change. The
        // part of the selection whose lines go goes with them.
        QQuickItem *list = Fixture::find(log, u"logLines"_s);
        list->setProperty("contentY", 20000.0);
        for (const int count : {1000, 4000}) {
            // Some lines dropped: the same lines stay in view. All replaced: same depth.
            const auto place = [list, count] {
                return list->property("contentY").toDouble() -
                       (count < 3000 ? 0 : list->property("originY").toDouble());
            };
            const double before = place();
            for (int i = 0; i < count; ++i)
                f.model->log()->append(u"new %1"_s.arg(i));
            QTRY_VERIFY(text->shownText().endsWith(u"new %1"_s.arg(count - 1)));
            QTRY_COMPARE(place(), before);
            QCOMPARE(text->selectedText(),
                     count < 3000 ? u"line 1005\nline 1006\nli"_s : QString());
            // Shown on the line that now holds it, whichever line it drew before.
            QCOMPARE(logLine(log, 0)->property("selectedText").toString(),
                     count < 3000 ? u"line 1005"_s : QString());
        }
        selected.clear();
    }
    // The open window follows the log; a new line leaves a selection alone.
    f.model->log()->append(u"one more"_s);
    QTRY_COMPARE(text->data(text->index(text->rowCount() - 1)).toString(), u"one more"_s);
    QCOMPARE(text->selectedText(), selected);
    f.model->log()->clear();
    QTRY_COMPARE(text->shownText(), LogText::emptyText());
    QVERIFY(Fixture::find(log, u"emptyLog"_s)->isVisible());
    QTest::keyClick(log, Qt::Key_Return);
    QTRY_VERIFY(!log);
}

QTEST_MAIN(TestWindows)
#include "tst_windows.moc"
