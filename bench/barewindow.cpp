// The floor for a Qt Quick window on this machine: one line of text and nothing else.
// bench_startup starts it beside the real program and divides their first frames.
// With --button it shows one push button of the program's style instead.

#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQuickStyle>
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
    const bool button = app.arguments().contains(u"--button"_s);
    if (button)
        QQuickStyle::setStyle(u"Fusion"_s);
    engine.load(
        QUrl(button ? u"qrc:/BareWindow/BareButton.qml"_s : u"qrc:/BareWindow/BareWindow.qml"_s));
    if (engine.rootObjects().isEmpty())
        return 1;
    return QGuiApplication::exec();
}
