// vantro-playhost ENGINE_ENDPOINT GAME_ARCHIVE_URL: the model without a window, for
// the tests that kill a launcher in the middle of a first Play. Presses Play once and
// prints every state ("state: <title>") and log line ("log: <line>") as it happens,
// then "done: <title>" when the pipeline has ended.
#include "app/appmodel.h"

#include <QCoreApplication>
#include <QTimer>

#include <QTextStream>

using namespace Qt::StringLiterals;

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(u"Vantro"_s);
    QCoreApplication::setApplicationName(u"Vantro 3D"_s);
    if (argc != 3)
        return 2;
    AppModel::Config config;
    config.engineEndpoint = QString::fromLocal8Bit(argv[1]);
    config.gameArchiveUrl = QString::fromLocal8Bit(argv[2]);
    config.promotionDelay = std::chrono::milliseconds(300);
    config.settleDelay = std::chrono::milliseconds(20);
    config.stopGrace = std::chrono::milliseconds(500);
    AppModel model(config);
    QTextStream out(stdout);
    const auto say = [&out](const QString &line) { out << line << Qt::endl; };
    QObject::connect(&model, &AppModel::stateChanged, &model,
                     [&] { say(u"state: "_s + model.stateTitle()); });
    qsizetype shown = 0;
    QObject::connect(model.log(), &LogStore::linesChanged, &model, [&] {
        const QStringList &lines = model.log()->lines();
        for (shown = std::min(shown, lines.size()); shown < lines.size(); ++shown)
            say(u"log: "_s + lines.at(shown));
    });
    model.play();
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &model, [&] {
        if (!model.isWorking()) {
            say(u"done: "_s + model.stateTitle());
            QCoreApplication::quit();
        }
    });
    poll.start(20);
    return QCoreApplication::exec();
}
