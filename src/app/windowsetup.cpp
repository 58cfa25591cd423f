#include "windowsetup.h"

#include "app/appmodel.h"
#include "app/logtext.h"
#include "app/viewrules.h"

#include <QColor>
#include <QPointer>
#include <QQmlEngine>

namespace {
QPointer<AppModel> windowModel;
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
        return true;
    }();
    Q_UNUSED(registered);
}

void useBuiltInViews(QQmlEngine &engine)
{
    engine.addImportPath(QStringLiteral("qrc:/"));
}

void applyDarkPalette(QObject *window)
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
