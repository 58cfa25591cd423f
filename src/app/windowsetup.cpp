#include "windowsetup.h"

#include "app/appmodel.h"
#include "app/logtext.h"
#include "app/viewrules.h"

#include <QColor>
#include <QGuiApplication>
#include <QMetaEnum>
#include <QPalette>
#include <QPointer>
#include <QQmlEngine>
#include <QWindow>

namespace {
QPointer<AppModel> windowModel;

// Qt Quick Controls' Fusion style in Qt 6.4 colours the controls and the window from
// a light palette of its own, unless the desktop says it is dark in a way Qt 6.4
// reads; plain items take the application's palette. Under a theme that hands over a
// dark palette (qt6ct, KDE's) the window stayed light while the panels and the text
// measured against them took the dark palette's colours. So every window takes the
// application's palette whole, and again whenever it changes: one palette, the
// desktop's, for everything that is drawn and everything that is measured.
class DesktopPalette : public QObject
{
public:
    using QObject::QObject;

    static void apply(QObject *window)
    {
        auto *palette = window->property("palette").value<QObject *>();
        if (!palette)
            return; // not a Qt Quick window
        const QPalette desktop = QGuiApplication::palette();
        const QMetaEnum roles = QMetaEnum::fromType<QPalette::ColorRole>();
        for (const auto &[group, name] : {std::pair(QPalette::Active, "active"),
                                          {QPalette::Inactive, "inactive"},
                                          {QPalette::Disabled, "disabled"}}) {
            auto *colors = palette->property(name).value<QObject *>();
            for (int role = 0; role < QPalette::NColorRoles; ++role) {
                QByteArray key = roles.valueToKey(role);
                if (role == QPalette::NoRole || key.isEmpty())
                    continue;
                key[0] = char(QChar::toLower(key[0]));
                // Only what differs: each change runs through every binding of the window.
                const QColor color = desktop.color(group, QPalette::ColorRole(role));
                if (colors->property(key).value<QColor>() != color)
                    colors->setProperty(key, color);
            }
        }
    }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::Show && watched->isWindowType()) {
            apply(watched);
        } else if (event->type() == QEvent::ApplicationPaletteChange && watched == qApp) {
            const auto windows = QGuiApplication::topLevelWindows();
            for (QWindow *window : windows)
                apply(window);
        }
        return false;
    }
};
} // namespace

void registerWindowTypes(AppModel *model)
{
    windowModel = model;
    static const bool registered = [] {
        // A factory rather than a registered instance, so that each new engine
        // picks up the model of the moment (tests make one per case).
        qmlRegisterSingletonType<AppModel>(
            "Vantro", 1, 0, "AppModel", [](QQmlEngine *, QJSEngine *) -> AppModel * {
                QQmlEngine::setObjectOwnership(windowModel, QQmlEngine::CppOwnership);
                return windowModel;
            });
        qmlRegisterSingletonType<ViewRules>(
            "Vantro", 1, 0, "ViewRules", [](QQmlEngine *, QJSEngine *) -> ViewRules * {
                ViewRules *rules = windowModel ? windowModel->viewRules() : nullptr;
                QQmlEngine::setObjectOwnership(rules, QQmlEngine::CppOwnership);
                return rules;
            });
        qmlRegisterType<LogText>("Vantro", 1, 0, "LogText");
        qApp->installEventFilter(new DesktopPalette(qApp));
        return true;
    }();
    Q_UNUSED(registered);
}

void useBuiltInViews(QQmlEngine &engine)
{
    engine.addImportPath(QStringLiteral("qrc:/"));
}

void applyDarkPalette()
{
    QPalette palette;
    const std::pair<QPalette::ColorRole, QColor> roles[] = {
        {QPalette::Window, QColor(0x2b, 0x2b, 0x2b)},
        {QPalette::WindowText, QColor(0xee, 0xee, 0xee)},
        {QPalette::Base, QColor(0x1e, 0x1e, 0x1e)},
        {QPalette::AlternateBase, QColor(0x35, 0x35, 0x35)},
        {QPalette::Text, QColor(0xee, 0xee, 0xee)},
        {QPalette::Button, QColor(0x3c, 0x3c, 0x3c)},
        {QPalette::ButtonText, QColor(0xee, 0xee, 0xee)},
        {QPalette::Highlight, QColor(0x35, 0x84, 0xe4)},
        {QPalette::HighlightedText, QColor(Qt::white)},
        {QPalette::Link, QColor(0x78, 0xae, 0xed)},
        {QPalette::PlaceholderText, QColor(0xa0, 0xa0, 0xa0)},
        {QPalette::Mid, QColor(0x50, 0x50, 0x50)},
        {QPalette::Light, QColor(0x50, 0x50, 0x50)},
        {QPalette::Dark, QColor(0x20, 0x20, 0x20)}};
    for (const auto &[role, color] : roles)
        palette.setColor(role, color);
    for (const auto role : {QPalette::WindowText, QPalette::ButtonText, QPalette::Text})
        palette.setColor(QPalette::Disabled, role, QColor(0x80, 0x80, 0x80));
    QGuiApplication::setPalette(palette);
}
