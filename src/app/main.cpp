#include "acquisition/network.h"
#include "app/appmodel.h"
#include "app/launcherentry.h"
#include "app/singleinstance.h"
#include "app/windowsetup.h"
#include "ui/controlaccessible.h"
#include "ui/nativedesktop.h"

#include <QGuiApplication>
#include <QIcon>
#include <QQmlApplicationEngine>
#include <QQuickStyle>
#include <QQuickWindow>
#include <QUrl>

using namespace Qt::StringLiterals;

int main(int argc, char *argv[])
{
    // The windows are static text and controls: the software scene graph starts
    // faster and holds far less memory than OpenGL on a software rasteriser, and
    // needs no working GPU driver (see bench_startup). Qt's own QT_QUICK_BACKEND
    // still overrides it.
    if (qEnvironmentVariableIsEmpty("QT_QUICK_BACKEND"))
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);

    // Natively on Wayland, and safe on a compositor with no seat (see there).
    NativeDesktop desktop;
    QGuiApplication app(argc, argv);
    desktop.restoreEnvironment();
    // Without an organisation, QSettings would write under "Unknown Organization".
    QGuiApplication::setOrganizationName(u"Vantro"_s);
    QGuiApplication::setApplicationName(u"Vantro 3D"_s);
    QGuiApplication::setDesktopFileName(u"org.vantro.Vantro3D"_s);
    // From the program itself: a theme lookup loads every image plugin before the
    // first frame, and desktops take the icon from the desktop file anyway.
    QGuiApplication::setWindowIcon(QIcon(u":/icons/org.vantro.Vantro3D.png"_s));

    // Two launchers on one data folder would run two pipelines over the same files.
    SingleInstance instance;
    if (instance.claim() == SingleInstance::Claim::AlreadyRunning)
        return 0;

    // Fusion follows the desktop's palette, light or dark, and draws a visible focus.
    QQuickStyle::setStyle(u"Fusion"_s);
    // Greyed controls read as unavailable, segments as radio buttons, progress with its value.
    installControlAccessibility();
    AppModel *model = AppModel::shared();
    registerWindowTypes(model);
    // The dock shows a long first download's progress on the launcher's icon.
    LauncherEntry launcherEntry(model);

    QQmlApplicationEngine engine;
    useBuiltInViews(engine);
    QObject::connect(
        &engine, &QQmlApplicationEngine::objectCreationFailed, &app,
        [] { QCoreApplication::exit(1); }, Qt::QueuedConnection);
    engine.load(QUrl(QString::fromLatin1(mainWindowUrl)));

    // The size estimate and the update check ask the servers once the window shows: nothing of the
    // network stands between the player and the first frame. Queued: the render loop announces a
    // swapped frame before it has finished with it, and the first request loads the TLS backend,
    // which took several milliseconds inside the first frame.
    if (auto *window = engine.rootObjects().isEmpty()
                           ? nullptr
                           : qobject_cast<QQuickWindow *>(engine.rootObjects().first())) {
        QObject::connect(
            window, &QQuickWindow::frameSwapped, model,
            [model] {
                model->loadSizeEstimate();
                model->startUpdateChecks();
            },
            Qt::ConnectionType(Qt::SingleShotConnection | Qt::QueuedConnection));
    }

    QObject::connect(&instance, &SingleInstance::activationRequested, &engine, [&engine] {
        const auto roots = engine.rootObjects();
        if (auto *window =
                roots.isEmpty() ? nullptr : qobject_cast<QQuickWindow *>(roots.first())) {
            window->show();
            window->raise();
            window->requestActivate();
        }
    });
    // Whatever ends the program, nothing of the pipeline outlives it half-done, and the
    // network's thread ends while the application still exists.
    QObject::connect(&app, &QCoreApplication::aboutToQuit, model, &AppModel::shutDown);
    QObject::connect(&app, &QCoreApplication::aboutToQuit, [] { delete sharedNetwork(); });
    return QGuiApplication::exec();
}
