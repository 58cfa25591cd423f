// Play: from whatever is on disk to a running game, and how its end is judged.
#include "app/appmodel.h"

using namespace Qt::StringLiterals;

void AppModel::play() {}

void AppModel::stopGame() {}

void AppModel::shutDown() {}

QCoro::Task<void> AppModel::work()
{
    co_return;
}

QCoro::Task<void> AppModel::runPipeline()
{
    co_return;
}

QCoro::Task<void> AppModel::launch(QString exe, QString root)
{
    Q_UNUSED(exe);
    Q_UNUSED(root);
    co_return;
}

QStringList AppModel::launchArguments(const QString &root, bool fullscreen,
                                      const QString &resolution)
{
    Q_UNUSED(fullscreen);
    Q_UNUSED(resolution);
    return {u"--path"_s, root};
}

AppModel::GameEnd AppModel::judgeGameEnd(double elapsedSeconds, int exitCode, bool stopped,
                                         double thresholdSeconds)
{
    if (stopped)
        return GameEnd::Stopped;
    return elapsedSeconds < thresholdSeconds || exitCode != 0 ? GameEnd::Unexpected
                                                              : GameEnd::Normal;
}

QString AppModel::failureReportText(double elapsedSeconds, int exitCode, const QStringList &log)
{
    Q_UNUSED(elapsedSeconds);
    Q_UNUSED(exitCode);
    Q_UNUSED(log);
    return {};
}
