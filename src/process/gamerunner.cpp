#include "gamerunner.h"

#include "logstore.h"
#include "runprocess.h"

#include <QFileInfo>

QCoro::Task<int> GameRunner::run(QString engine, QStringList args, LogStore *log)
{
    box = std::make_shared<ProcessBox>(m_scope, m_grace);
    // Arguments are not quoted on purpose: the line is for reading, not for pasting.
    log->append(u"Starting: "_qs + QFileInfo(engine).fileName() + u' ' + args.join(u' '));
    co_return co_await runProcess(engine, args, box,
                                  [log](const QString &line) { log->append(line); });
}
