#pragma once

class AppModel;
class QObject;
class QQmlEngine;

/**
 * @brief Makes the model, its view rules and the log adapter known to QML as module
 * "Vantro".
 *
 * Every engine created afterwards sees `model` as the AppModel singleton and its
 * rules as the ViewRules singleton; the
 * program, the screenshot tool and the window tests go through this one call.
 */
void registerWindowTypes(AppModel *model);

/** Lets `engine` find the Vantro module in the program's own resources before any
 *  folder on disk, so a stray Vantro/qmldir beside the program cannot hide it. */
void useBuiltInViews(QQmlEngine &engine);

/** Gives `window` (a QML window) roughly the palette a dark desktop theme hands to Qt,
 *  the way a platform theme's palette reaches every control in it: for the
 *  screenshot tool and the window tests. */
void applyDarkPalette(QObject *window);

/** The main window's QML, inside the Vantro module's resources. */
inline constexpr char mainWindowUrl[] = "qrc:/Vantro/Main.qml";
