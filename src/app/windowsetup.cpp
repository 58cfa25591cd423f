#include "windowsetup.h"

#include "app/appmodel.h"
#include "app/logtext.h"
#include "app/viewrules.h"

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
