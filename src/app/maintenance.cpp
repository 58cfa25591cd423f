// Housekeeping beside the pipeline: the size estimate, the installed size, update,
// reinstall, remove everything, and showing folders.
#include "app/appmodel.h"

using namespace Qt::StringLiterals;

void AppModel::updateGame() {}

void AppModel::reinstall() {}

void AppModel::removeEverything() {}

void AppModel::showSaves() {}

void AppModel::revealInFinder() {}

QCoro::Task<void> AppModel::loadSizeEstimate()
{
    co_return;
}

QCoro::Task<qint64> AppModel::installedSize()
{
    co_return 0;
}
