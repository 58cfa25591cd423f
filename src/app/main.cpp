#include "app/appmodel.h"

#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QUrl>
#include <QtQml>

int main(int argc, char *argv[])
{
    QGuiApplication app(argc, argv);
    // Without an organisation, QSettings would write under "Unknown Organization".
    QGuiApplication::setOrganizationName(QStringLiteral("Vantro"));
    QGuiApplication::setApplicationName(QStringLiteral("Vantro 3D"));

    AppModel *model = AppModel::shared();
    QQmlEngine::setObjectOwnership(model, QQmlEngine::CppOwnership);
    qmlRegisterSingletonInstance("Vantro", 1, 0, "AppModel", model);

    QQmlApplicationEngine engine;
    QObject::connect(
        &engine, &QQmlApplicationEngine::objectCreationFailed, &app,
        [] { QCoreApplication::exit(1); }, Qt::QueuedConnection);
    engine.load(QUrl(QStringLiteral("qrc:/Vantro/Main.qml")));
    return QGuiApplication::exec();
}
