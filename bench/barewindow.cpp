// The floor for a Qt Quick window on this machine: one line of text and nothing else.
// bench_startup starts it beside the real program and divides their first frames.

#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QUrl>

using namespace Qt::StringLiterals;

int main(int argc, char *argv[])
{
    // The scene graph the program picks (src/app/main.cpp): the two starts must differ
    // only in what the program does on top of drawing a window.
    if (qEnvironmentVariableIsEmpty("QT_QUICK_BACKEND"))
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    QGuiApplication app(argc, argv);
    QQmlApplicationEngine engine;
    engine.load(QUrl(u"qrc:/BareWindow/BareWindow.qml"_s));
    if (engine.rootObjects().isEmpty())
        return 1;
    return QGuiApplication::exec();
}
