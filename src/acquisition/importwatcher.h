#pragma once

#include <QElapsedTimer>
#include <QFutureWatcher>
#include <QObject>
#include <QTimer>
#include <chrono>
#include <memory>
#include <utility>

class LogStore;
class ProcessBox;

/**
 * @brief Closes the Godot 3 editor once its import has settled.
 *
 * Godot 3 imports only by opening its editor, which then stays open. Every
 * interval the project's files are checked off the GUI thread; after three checks in
 * a row with the import complete and the ".import" folder no longer growing, the
 * editor is asked to terminate. At the deadline it is closed regardless, and the
 * files decide. Destroying the watcher stops it at once, also while a check runs:
 * that check's result is then dropped.
 */
class ImportWatcher : public QObject
{
    Q_OBJECT

public:
    ImportWatcher(QString root, std::shared_ptr<ProcessBox> box, LogStore *log,
                  std::chrono::milliseconds interval, std::chrono::milliseconds deadline,
                  QObject *parent = nullptr);

private:
    using Check = std::pair<qint64, bool>; // entries in ".import", import complete

    void tick();
    void judge(qint64 count, bool complete);
    void finish();

    QString m_root;
    std::shared_ptr<ProcessBox> m_box;
    LogStore *m_log;
    std::chrono::milliseconds m_deadline;
    QElapsedTimer m_clock;
    QTimer m_timer;
    qint64 m_lastCount = -1;
    int m_steadyChecks = 0;
    bool m_checking = false;
    bool m_finished = false;
    QFutureWatcher<Check> m_check;
};
