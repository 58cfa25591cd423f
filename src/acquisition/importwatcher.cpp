#include "importwatcher.h"

#include "acquisition/enginemanager.h"
#include "process/logstore.h"
#include "process/processbox.h"

#include <QFile>
#include <QSocketNotifier>
#include <QtConcurrent>

#include <cstring>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {
// Godot writes each file aside and renames it into place, so creations and moves
// are what matter; writes in place count too.
constexpr uint32_t watchedEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY |
                                   IN_CLOSE_WRITE | IN_ONLYDIR | IN_DONT_FOLLOW;
constexpr qsizetype namedFiles = 3;
} // namespace

ImportWatcher::ImportWatcher(QString root, std::shared_ptr<ProcessBox> box, LogStore *log,
                             Timing timing, QObject *parent)
    : QObject(parent), m_root(std::move(root)), m_box(std::move(box)), m_log(log), m_timing(timing)
{
    // A watcher member, not a continuation: results reach this object only while it
    // lives, and always on its own thread.
    connect(&m_check, &QFutureWatcher<Check>::finished, this, [this] { judge(m_check.result()); });
    m_quiet.setSingleShot(true);
    m_quiet.setInterval(m_timing.quiet);
    connect(&m_quiet, &QTimer::timeout, this, [this] { check(false); });
    m_idle.setSingleShot(true);
    m_idle.setInterval(m_timing.hopeless);
    connect(&m_idle, &QTimer::timeout, this, [this] { check(true); });
    m_deadline.setSingleShot(true);
    connect(&m_deadline, &QTimer::timeout, this, [this] { finish(Outcome::Deadline); });
    m_deadline.start(m_timing.deadline);

    m_inotify = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_inotify >= 0 &&
        ::inotify_add_watch(m_inotify, QFile::encodeName(m_root).constData(), watchedEvents) >= 0) {
        m_notifier = new QSocketNotifier(m_inotify, QSocketNotifier::Read, this);
        connect(m_notifier, &QSocketNotifier::activated, this, &ImportWatcher::readEvents);
        watchImportFolder();
    } else {
        // Out of notification instances or watches: the folders' own change times,
        // looked at often, tell the same, a little later.
        if (m_inotify >= 0)
            ::close(m_inotify);
        m_inotify = -1;
        m_lastSignature = signature();
        m_poll.setInterval(m_timing.quiet / 4);
        connect(&m_poll, &QTimer::timeout, this, [this] {
            if (const quint64 now = signature(); now != m_lastSignature) {
                m_lastSignature = now;
                changed();
            }
        });
        m_poll.start();
    }
    // The files may be complete already, with nothing left to change.
    m_quiet.start();
    m_idle.start();
}

ImportWatcher::~ImportWatcher()
{
    delete m_notifier;
    if (m_inotify >= 0)
        ::close(m_inotify);
}

void ImportWatcher::watchImportFolder()
{
    if (m_importWatch >= 0)
        return;
    m_importWatch = ::inotify_add_watch(
        m_inotify, QFile::encodeName(m_root + u"/.import"_s).constData(), watchedEvents);
}

void ImportWatcher::readEvents()
{
    alignas(inotify_event) char buffer[16 * 1024];
    bool any = false;
    for (;;) {
        const ssize_t size = ::read(m_inotify, buffer, sizeof buffer);
        if (size <= 0)
            break;
        any = true;
        for (ssize_t at = 0; at < size;) {
            const auto *event = reinterpret_cast<const inotify_event *>(buffer + at);
            // The import folder appears once the editor starts: from then on it is
            // where the import shows.
            if (event->len > 0 && (event->mask & IN_ISDIR) &&
                std::strcmp(event->name, ".import") == 0)
                watchImportFolder();
            if (event->mask & IN_IGNORED && event->wd == m_importWatch)
                m_importWatch = -1;
            at += ssize_t(sizeof(inotify_event) + event->len);
        }
    }
    if (any)
        changed();
}

void ImportWatcher::changed()
{
    if (m_outcome != Outcome::Watching)
        return;
    ++m_changes;
    m_quiet.start();
    m_idle.start();
}

quint64 ImportWatcher::signature() const
{
    quint64 value = 0;
    for (const QString &folder : {m_root, QString(m_root + u"/.import"_s)}) {
        struct stat status;
        if (::stat(QFile::encodeName(folder).constData(), &status) == 0)
            value = value * 1000003u + quint64(status.st_mtim.tv_sec) * 1000000000u +
                    quint64(status.st_mtim.tv_nsec) + quint64(status.st_nlink);
    }
    return value + quint64(EngineManager::importedEntryCount(m_root, 3));
}

void ImportWatcher::check(bool idle)
{
    if (m_outcome != Outcome::Watching)
        return;
    // A check that outlasts the quiet period is not stacked under another one.
    if (m_checking) {
        m_recheck = true;
        m_idleCheck = m_idleCheck || idle;
        return;
    }
    m_checking = true;
    m_idleCheck = idle;
    m_checkedChanges = m_changes;
    m_check.setFuture(QtConcurrent::run([root = m_root] {
        const auto missing = EngineManager::unpreparedAssets(root, 3, namedFiles);
        return Check{EngineManager::hasImportFolder(root) && missing && missing->isEmpty(),
                     missing.value_or(QStringList())};
    }));
}

void ImportWatcher::judge(const Check &result)
{
    m_checking = false;
    // A check that was under way when the deadline closed the editor has nothing to say.
    if (m_outcome != Outcome::Watching)
        return;
    const bool idle = m_idleCheck;
    if (m_recheck) {
        m_recheck = false;
        check(idle);
        return;
    }
    // Whatever changed while the files were read makes the result stale; the change
    // has started the quiet period again.
    if (m_changes != m_checkedChanges)
        return;
    if (result.complete) {
        m_log->append(u"Import finished, closing the Godot editor."_s);
        finish(Outcome::Complete);
    } else if (idle) {
        m_unprepared = result.unprepared;
        finish(Outcome::Hopeless);
    }
}

void ImportWatcher::finish(Outcome outcome)
{
    m_outcome = outcome;
    m_quiet.stop();
    m_idle.stop();
    m_deadline.stop();
    m_poll.stop();
    m_box->terminate();
}
