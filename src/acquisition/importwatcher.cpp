#include "importwatcher.h"

#include "acquisition/enginemanager.h"
#include "process/logstore.h"
#include "process/processbox.h"

#include <QtConcurrent>

using namespace Qt::StringLiterals;

ImportWatcher::ImportWatcher(QString root, std::shared_ptr<ProcessBox> box, LogStore *log,
                             std::chrono::milliseconds interval, std::chrono::milliseconds deadline,
                             QObject *parent)
    : QObject(parent), m_root(std::move(root)), m_box(std::move(box)), m_log(log),
      m_deadline(deadline)
{
    m_clock.start();
    // A watcher member, not a continuation: results reach this object only while it
    // lives, and always on its own thread.
    connect(&m_check, &QFutureWatcher<Check>::finished, this, [this] {
        m_checking = false;
        const Check result = m_check.result();
        judge(result.first, result.second);
    });
    m_timer.setInterval(interval);
    connect(&m_timer, &QTimer::timeout, this, &ImportWatcher::tick);
    m_timer.start();
}

void ImportWatcher::tick()
{
    if (m_finished)
        return;
    if (m_clock.elapsed() >= m_deadline.count()) {
        finish();
        return;
    }
    // A check that outlasts the interval is not stacked under another one.
    if (m_checking)
        return;
    m_checking = true;
    m_check.setFuture(QtConcurrent::run([root = m_root] {
        return Check{EngineManager::importedEntryCount(root),
                     EngineManager::importIsComplete(root)};
    }));
}

void ImportWatcher::judge(qint64 count, bool complete)
{
    // A check that was under way when the deadline closed the editor has nothing to say.
    if (m_finished)
        return;
    m_steadyChecks = (complete && count == m_lastCount) ? m_steadyChecks + 1 : 0;
    m_lastCount = count;
    if (m_steadyChecks > 2) {
        m_log->append(u"Import finished, closing the Godot editor."_s);
        finish();
    }
}

void ImportWatcher::finish()
{
    m_finished = true;
    m_timer.stop();
    m_box->terminate();
}
