#pragma once

#include <QElapsedTimer>
#include <QFutureWatcher>
#include <QObject>
#include <QStringList>
#include <QTimer>
#include <chrono>
#include <memory>

class LogStore;
class ProcessBox;
class QSocketNotifier;

/**
 * @brief Closes the Godot 3 editor as soon as its import is done.
 *
 * Godot 3 imports only by opening its editor, which then stays open. The project
 * folder and its ".import" folder are watched with file-system notifications; once
 * they have been quiet for a moment, the files are judged off the GUI thread, and a
 * complete import closes the editor. An import with nothing changing for a long
 * while and files still missing is hopeless: the editor is closed and the files are
 * named. At the deadline it is closed regardless, and the files decide. Destroying
 * the watcher stops it at once, also while a check runs: that check's result is
 * then dropped.
 */
class ImportWatcher : public QObject
{
    Q_OBJECT

public:
    struct Timing
    {
        std::chrono::milliseconds quiet;    // no change for this long: judge the files
        std::chrono::milliseconds hopeless; // no change for this long and incomplete: give up
        std::chrono::milliseconds deadline; // the editor is closed regardless
    };
    enum class Outcome { Watching, Complete, Hopeless, Deadline };

    ImportWatcher(QString root, std::shared_ptr<ProcessBox> box, LogStore *log, Timing timing,
                  QObject *parent = nullptr);
    ~ImportWatcher() override;

    /** Why the watcher closed the editor, if it did. */
    Outcome outcome() const { return m_outcome; }
    /** For a hopeless import: up to three of the files that were not prepared. */
    QStringList unprepared() const { return m_unprepared; }

private:
    struct Check
    {
        bool complete = false;
        QStringList unprepared;
    };

    void watchImportFolder();
    void readEvents();
    void changed();
    void check(bool idle);
    void judge(const Check &result);
    void finish(Outcome outcome);
    quint64 signature() const;

    QString m_root;
    std::shared_ptr<ProcessBox> m_box;
    LogStore *m_log;
    Timing m_timing;
    int m_inotify = -1;
    int m_importWatch = -1;
    QSocketNotifier *m_notifier = nullptr;
    QTimer m_quiet; // restarted by every change
    QTimer m_idle;  // restarted by every change
    QTimer m_deadline;
    QTimer m_poll; // where notifications are not to be had
    quint64 m_lastSignature = 0;
    quint64 m_changes = 0;
    quint64 m_checkedChanges = 0; // m_changes when the running check began
    bool m_idleCheck = false;
    bool m_checking = false;
    bool m_recheck = false;
    Outcome m_outcome = Outcome::Watching;
    QStringList m_unprepared;
    QFutureWatcher<Check> m_check;
};
