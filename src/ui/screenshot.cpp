// Renders the real main window offscreen with the model put in a given state and
// writes it as a PNG: for the README, the packaging and a reviewer's eye.
//
//   vantro-screenshot STATE[+SHEET][+dark] OUT.png [GAME_FOLDER]
//
// STATE is notDownloaded, downloading, settingUp, needs, ready, starting or playing
// (needs comes with a failure report). SHEET, one of settings, about or log, opens
// that window over the main one and renders it instead; "dark" renders with a dark
// desktop palette. GAME_FOLDER, a folder holding a
// project.godot, stands in for a downloaded game. Nothing of the user's own data
// or settings is read or written: everything lives in a temporary folder.

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

// Roughly what a dark desktop theme hands to Qt, set on a window the way a
// platform theme's palette reaches every control and item in it.
void makeDark(QQuickWindow *window)
{
    auto *palette = window->property("palette").value<QObject *>();
    const std::pair<const char *, QColor> roles[] = {{"window", QColor(0x2b, 0x2b, 0x2b)},
                                                     {"windowText", QColor(0xee, 0xee, 0xee)},
                                                     {"base", QColor(0x1e, 0x1e, 0x1e)},
                                                     {"alternateBase", QColor(0x35, 0x35, 0x35)},
                                                     {"text", QColor(0xee, 0xee, 0xee)},
                                                     {"button", QColor(0x3c, 0x3c, 0x3c)},
                                                     {"buttonText", QColor(0xee, 0xee, 0xee)},
                                                     {"highlight", QColor(0x35, 0x84, 0xe4)},
                                                     {"highlightedText", QColor(Qt::white)},
                                                     {"link", QColor(0x78, 0xae, 0xed)},
                                                     {"placeholderText", QColor(0xa0, 0xa0, 0xa0)},
                                                     {"mid", QColor(0x50, 0x50, 0x50)},
                                                     {"light", QColor(0x50, 0x50, 0x50)},
                                                     {"dark", QColor(0x20, 0x20, 0x20)}};
    for (const auto &[role, color] : roles)
        palette->setProperty(role, color);
    auto *disabled = palette->property("disabled").value<QObject *>();
    for (const char *role : {"windowText", "buttonText", "text"})
        disabled->setProperty(role, QColor(0x80, 0x80, 0x80));
}

bool putInState(AppModel &model, const QString &state)
{
    ModelPreview preview(model);
    if (state == u"notDownloaded"_s) {
        preview.downloadSizeText(u"about 96.3 MB"_s).state(AppState::notDownloaded());
    } else if (state == u"downloading"_s) {
        preview.state(AppState::downloading(u"the game"_s))
            .progress(0.42, u"13.1 MB of 31.2 MB \u00b7 4.2 MB/s"_s);
    } else if (state == u"settingUp"_s) {
        preview.state(AppState::settingUp(u"First-time setup, this can take a minute or more"_s))
            .progress(std::nullopt, u"Godot is preparing the game's files\u2026"_s)
            .setupNote(u"Godot 3 prepares the game in its editor. A Godot window opens for a "
                       u"moment and is closed automatically; please leave it alone."_s);
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
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    QGuiApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 3 || args.size() > 4)
        return fail(u"usage: vantro-screenshot STATE[+SHEET][+dark] OUT.png [GAME_FOLDER]"_s);

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
    QStringList parts = args.at(1).split(u'+');
    const QString state = parts.takeFirst();
    const bool dark = parts.removeAll(u"dark"_s) > 0;
    const QString sheet = parts.value(0);
    if (!putInState(model, state))
        return fail(u"unknown state \u201c"_s + state + u"\u201d"_s);
    const QHash<QString, QString> sheets{
        {u"settings"_s, u"Settings"_s}, {u"about"_s, u"About"_s}, {u"log"_s, u"Log"_s}};
    if (!sheet.isEmpty() && !sheets.contains(sheet))
        return fail(u"unknown window \u201c"_s + sheet + u"\u201d"_s);
    model.log()->append(
        u"Downloading https://github.com/orrik/Zorbit/archive/refs/heads/master.zip"_s);
    model.log()->append(u"Game unpacked."_s);
    registerWindowTypes(&model);

    QQmlApplicationEngine engine;
    useBuiltInViews(engine);
    engine.load(QUrl(QString::fromLatin1(mainWindowUrl)));
    auto *window = engine.rootObjects().isEmpty()
                       ? nullptr
                       : qobject_cast<QQuickWindow *>(engine.rootObjects().first());
    if (!window)
        return fail(u"the main window did not load"_s);

    if (!sheet.isEmpty()) {
        window->findChild<QObject *>(u"content"_s)
            ->setProperty((u"show"_s + sheets.value(sheet)).toLatin1().constData(), true);
    }
    if (dark)
        makeDark(window);
    int result = 1;
    // Two frames in, so the banner's canvas and the symbols have been painted.
    QTimer::singleShot(300, &app, [&] {
        QQuickWindow *shown = window;
        for (QWindow *w : QGuiApplication::topLevelWindows())
            if (!sheet.isEmpty() && w->title() == sheets.value(sheet))
                shown = qobject_cast<QQuickWindow *>(w);
        if (dark && shown != window)
            makeDark(shown);
        const QImage image = shown->grabWindow();
        result = image.save(args.at(2)) ? 0 : fail(u"cannot write "_s + args.at(2));
        QCoreApplication::exit(result);
    });
    QGuiApplication::exec();
    return result;
}
