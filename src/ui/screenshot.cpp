// Renders the real windows offscreen with the model put in a given state and writes
// one of them as a PNG: for the README, the packaging and a reviewer's eye.
//
//   vantro-screenshot STATE[+WINDOW][+dark][+2x][+newer] OUT.png [GAME_FOLDER]
//
// STATE is notDownloaded, downloading, settingUp, needs, ready, starting or playing
// (needs comes with a failure report). WINDOW, one of settings, about or log, opens
// that sheet over the main window and renders it instead; reinstall and remove open
// the settings with that question; quit asks the quit guard's question. A WINDOW on
// its own stands for ready+WINDOW (playing+quit). "dark" renders with a dark desktop palette, "2x"
// at twice the scale, "newer" with a newer game on offer. GAME_FOLDER, a folder holding a
// project.godot, stands in for a downloaded game. Nothing of the user's own data or settings is
// read or written: everything lives in a temporary folder.

#include "acquisition/gameversion.h"
#include "app/appmodel.h"
#include "app/modelpreview.h"
#include "app/pipeline.h"
#include "app/windowsetup.h"

#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQuickStyle>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>

using namespace Qt::StringLiterals;

namespace {
int fail(const QString &message)
{
    std::fprintf(stderr, "vantro-screenshot: %s\n", qPrintable(message));
    return 2;
}

void copyFiles(const QString &from, const QString &to)
{
    QDir().mkpath(to);
    const auto names = QDir(from).entryList(QDir::Files | QDir::Hidden);
    for (const QString &name : names)
        QFile::copy(from + u'/' + name, to + u'/' + name);
}

bool putInState(AppModel &model, const QString &state)
{
    ModelPreview preview(model);
    if (state == u"notDownloaded"_s) {
        preview.downloadSizeText(u"about 96.3\u00a0MB"_s).state(AppState::notDownloaded());
    } else if (state == u"downloading"_s) {
        preview.state(AppState::downloading(u"the game"_s))
            .progress(0.42, u"13.1\u00a0MB of 31.2\u00a0MB \u00b7 4.2\u00a0MB/s"_s);
    } else if (state == u"settingUp"_s) {
        preview.state(AppState::settingUp(u"First-time setup, this can take a minute or more"_s))
            .progress(std::nullopt, u"Godot is preparing the game's files\u2026"_s)
            .setupNote(u"Godot 3 prepares the game's files in the background; no window opens."_s);
    } else if (state == u"needs"_s) {
        preview.state(AppState::needs(u"the game closed unexpectedly"_s))
            .failureReport(Pipeline::failureReportText(
                2.4, 1,
                {u"Starting: Godot_v3.5.3-stable_x11.64 --path Zorbit-master --windowed"_s,
                 u"Godot Engine v3.5.3.stable.official.6c814135b - https://godotengine.org"_s,
                 u"ERROR: Cannot open file 'res://levels/track1.tscn'."_s,
                 u"   at: load (core/io/resource_loader.cpp:285)"_s}));
    } else if (state == u"ready"_s) {
        preview.state(AppState::ready());
    } else if (state == u"starting"_s) {
        preview.state(AppState::starting());
    } else if (state == u"playing"_s) {
        preview.state(AppState::playing());
    } else {
        return false;
    }
    return true;
}
} // namespace

int main(int argc, char *argv[])
{
    if (argc < 3 || argc > 4)
        return fail(u"usage: vantro-screenshot STATE[+WINDOW][+dark][+2x][+newer] OUT.png "
                    u"[GAME_FOLDER]"_s);
    QStringList parts = QString::fromLocal8Bit(argv[1]).split(u'+');
    const bool dark = parts.removeAll(u"dark"_s) > 0;
    const bool newer = parts.removeAll(u"newer"_s) > 0;
    // Before the application exists, as a desktop's own scale would be.
    if (parts.removeAll(u"2x"_s) > 0)
        qputenv("QT_SCALE_FACTOR", "2");
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    QGuiApplication app(argc, argv);
    const QStringList args = app.arguments();

    QTemporaryDir home;
    if (!home.isValid())
        return fail(u"no temporary folder"_s);
    qputenv("XDG_DATA_HOME", QFile::encodeName(home.path() + u"/data"_s));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.path() + u"/config"_s));
    QGuiApplication::setOrganizationName(u"Vantro"_s);
    QGuiApplication::setApplicationName(u"Vantro 3D"_s);
    if (args.size() == 4)
        copyFiles(args.at(3), home.path() + u"/data/Vantro 3D/Game/Zorbit-master"_s);

    QQuickStyle::setStyle(u"Fusion"_s);
    AppModel model{AppModel::Config{}};
    // Which sheet opens (its flag and title), and which question in it, if any.
    struct Window
    {
        QString flag, title, question;
    };
    const QHash<QString, Window> windows{
        {u"settings"_s, {u"showSettings"_s, u"Settings"_s, {}}},
        {u"about"_s, {u"showAbout"_s, u"About"_s, {}}},
        {u"log"_s, {u"showLog"_s, u"Log"_s, {}}},
        {u"reinstall"_s, {u"showSettings"_s, u"Settings"_s, u"reinstallQuestion"_s}},
        {u"remove"_s, {u"showSettings"_s, u"Settings"_s, u"removeQuestion"_s}},
        {u"quit"_s, {{}, {}, u"quitGuard"_s}}};
    if (windows.contains(parts.first()))
        parts.prepend(parts.first() == u"quit"_s ? u"playing"_s : u"ready"_s);
    const QString state = parts.takeFirst();
    if (parts.size() > 1 || (!parts.isEmpty() && !windows.contains(parts.first())))
        return fail(u"unknown window \u201c"_s + parts.join(u'+') + u"\u201d"_s);
    const Window shown = windows.value(parts.value(0));
    if (!putInState(model, state))
        return fail(u"unknown state \u201c"_s + state + u"\u201d"_s);
    if (newer) {
        // On disk as well: the settings read the disk again when they open.
        const QString installed = u"3f2c1a9e5b7d4c6a8e0f1b2d3c4e5f6a7b8c9d0e"_s;
        GameVersion::write(model.layout(), installed);
        ModelPreview(model).versions(installed, u"8d41e07c2a9b6f3e1d5c7a0b4e8f2c6d9a1b3e5f"_s);
    }
    model.log()->append(
        u"Downloading https://github.com/orrik/Zorbit/archive/refs/heads/master.zip"_s);
    model.log()->append(u"Game unpacked."_s);
    registerWindowTypes(&model);
    if (dark)
        applyDarkPalette();

    QQmlApplicationEngine engine;
    useBuiltInViews(engine);
    engine.load(QUrl(QString::fromLatin1(mainWindowUrl)));
    auto *window = engine.rootObjects().isEmpty()
                       ? nullptr
                       : qobject_cast<QQuickWindow *>(engine.rootObjects().first());
    if (!window)
        return fail(u"the main window did not load"_s);
    if (!shown.flag.isEmpty())
        window->findChild<QObject *>(u"content"_s)->setProperty(shown.flag.toLatin1(), true);

    int result = 1;
    QQuickWindow *target = window;
    // A few frames in, so that the banner's canvas, the symbols and any question
    // have been painted.
    QTimer::singleShot(100, &app, [&] {
        for (QWindow *w : QGuiApplication::topLevelWindows())
            if (!shown.title.isEmpty() && w->title() == shown.title)
                target = qobject_cast<QQuickWindow *>(w);
        if (shown.question.isEmpty())
            return;
        // A question made on first use is asked for through its loader.
        if (auto *loader = target->findChild<QObject *>(shown.question + u"Loader"_s))
            loader->setProperty("active", true);
        QMetaObject::invokeMethod(target->findChild<QObject *>(shown.question), "open");
    });
    QTimer::singleShot(500, &app, [&] {
        const QImage image = target->grabWindow();
        result = image.save(args.at(2)) ? 0 : fail(u"cannot write "_s + args.at(2));
        QCoreApplication::exit(result);
    });
    QGuiApplication::exec();
    return result;
}
