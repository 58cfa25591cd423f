#pragma once

class AppModel;
class QQmlEngine;

/**
 * @brief Makes the model, its view rules and the log adapter known to QML as module
 * "Vantro".
 *
 * Every engine created afterwards sees `model` as the AppModel singleton and its
 * rules as the ViewRules singleton. Every Qt Quick window, when shown and whenever the
 * desktop's palette changes, takes the application's palette as its own, so that the
 * controls, the panels and the colours the views compute all come from one palette.
 * The program, the screenshot tool and the window tests go through this one call.
 */
void registerWindowTypes(AppModel *model);

/** Lets `engine` find the Vantro module in the program's own resources before any
 *  folder on disk, so a stray Vantro/qmldir beside the program cannot hide it. */
void useBuiltInViews(QQmlEngine &engine);

/** Hands the application roughly the palette a dark desktop theme hands to Qt, the way
 *  qt6ct and KDE's theme do (QGuiApplication::setPalette): for the screenshot tool and
 *  the window tests. QGuiApplication::setPalette(QPalette()) gives the desktop's back. */
void applyDarkPalette();

/** The main window's QML, inside the Vantro module's resources. */
inline constexpr char mainWindowUrl[] = "qrc:/Vantro/Main.qml";
