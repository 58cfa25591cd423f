#include "importwatcher.h"

#include "acquisition/enginemanager.h"
#include "process/logstore.h"
#include "process/processbox.h"

#include <QFuture>
#include <QtConcurrent>

using namespace Qt::StringLiterals;

ImportWatcher::ImportWatcher(QString root, std::shared_ptr<ProcessBox> box, LogStore *log,
                             std::chrono::milliseconds interval, std::chrono::milliseconds deadline,
                             QObject *parent)
    : QObject(parent), m_root(std::move(root)), m_box(std::move(box)), m_log(log),
      m_deadline(deadline)
{
    m_clock.start();
    m_timer.setInterval(interval);
    connect(&m_timer, &QTimer::timeout, this, &ImportWatcher::tick);
    m_timer.start();
}

void ImportWatcher::tick()
{
    if (m_clock.elapsed() >= m_deadline.count()) {
        finish();
        return;
    }
    // A check that outlasts the interval is not stacked under another one.
    if (m_checking)
        return;
    m_checking = true;
    QtConcurrent::run([root = m_root] {
        return std::pair{EngineManager::importedEntryCount(root),
                         EngineManager::importIsComplete(root)};
    }).then(this, [this](std::pair<qint64, bool> result) {
        m_checking = false;
        judge(result.first, result.second);
    });
}

void ImportWatcher::judge(qint64 count, bool complete)
{
    m_steadyChecks = (complete && count == m_lastCount) ? m_steadyChecks + 1 : 0;
    m_lastCount = count;
    if (m_steadyChecks > 2) {
        m_log->append(u"Import finished, closing the Godot editor."_s);
        finish();
    }
}

void ImportWatcher::finish()
{
    m_timer.stop();
    m_box->terminate();
}
