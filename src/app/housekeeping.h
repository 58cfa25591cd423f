#pragma once

#include <QCoroTask>
#include <QString>
#include <QTimer>

class AppModel;

/**
 * @brief The model's housekeeping beside Play: the first download's size estimate,
 * the installed size, update, reinstall, remove everything, and showing the data and
 * save folders. The three deleting commands run only when nothing is under way and
 * this launcher holds the data folder; none of them touches the game's saves.
 */
class Housekeeping
{
public:
    explicit Housekeeping(AppModel &model) : m(model) {}

    /** Downloads the game again; the installed one is set aside until the new one is
     *  in, and put back if it cannot be had. */
    void updateGame();
    /** Downloads the game and the engine again, the installed ones set aside likewise. */
    void reinstall();
    /** Removes everything in the base folder but its lock; the model is then as on a
     *  first start. */
    void removeEverything();
    void showSaves();
    void revealInFinder();
    /** Sets downloadSizeText from the servers' announced sizes, engine first. */
    QCoro::Task<void> loadSizeEstimate();
    /** The allocated size of the files in the base folder (followed if it is a link),
     *  0 when it is absent. */
    QCoro::Task<qint64> installedSize();
    /** Asks for a newer version of the game now and then every interval, each time
     *  only once the launcher is idle with a game installed. */
    void startUpdateChecks();

private:
    bool allowed();
    void checkWhenIdle();
    QCoro::Task<void> checkForUpdate();

    AppModel &m;
    QTimer m_updateTimer;
    bool m_checkDue = false;
    bool m_checking = false;
};
