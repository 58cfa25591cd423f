#pragma once

#include "acquisition/enginemanager.h"
#include "process/gamerunner.h"

#include <QCoroTask>
#include <QObject>
#include <QPointer>
#include <QTimer>
#include <QUrl>
#include <memory>

class AppModel;
class FetchHandle;
class FileDownloader;
class FollowingHash;
class OffscreenDisplay;
class ProcessBox;

/**
 * @brief Play: from whatever is on disk to a running game, and how its end is judged.
 *
 * Each step is skipped when its result is on disk; each reports through the model's
 * state, progress and log, and throws ProcessFailure (our words), PlatformError (the
 * platform's, in a sentence of ours) or Cancelled. The run catches once, at the top.
 * A cancel is sticky until the next Play: a step that begins after it fails at once,
 * and every step's end checks for it.
 */
class Pipeline : public QObject
{
    Q_OBJECT

public:
    explicit Pipeline(AppModel &model);
    ~Pipeline() override;

    /** Starts the run unless something is already under way or another launcher holds
     *  the data folder. */
    void play();
    /** Stops the download or the setup child in flight; the run ends "Cancelled.". */
    void cancel();
    /** Stops the running game. */
    void stopGame();
    /** True while a run is under way. */
    bool isWorking() const { return m_working; }

    // The steps, each a whole piece of the run.
    QCoro::Task<QString> download(QString name, QString label, QUrl url, QString file, QString dir);
    QCoro::Task<void> downloadGame();
    QCoro::Task<void> downloadEngine(EngineSpec spec);
    QCoro::Task<void> importProject(QString exe, EngineSpec spec, QString root);

    /** The engine's arguments that start the game in `root`; fullscreen drops the
     *  resolution. */
    static QStringList launchArguments(const QString &root, bool fullscreen,
                                       const QString &resolution);
    enum class GameEnd { Stopped, Normal, Unexpected };
    /** How a game run ended, from how long it ran and how. */
    static GameEnd judgeGameEnd(double elapsedSeconds, int exitCode, bool stopped,
                                double thresholdSeconds = 10.0);
    /** The report of an unexpected ending: the run's length, its exit code and the
     *  last 30 log lines. */
    static QString failureReportText(double elapsedSeconds, int exitCode, const QStringList &log);

private:
    struct Fetched
    {
        QString path;
        std::shared_ptr<FollowingHash> hash; // when asked for
    };
    QCoro::Task<Fetched> fetch(QString label, QUrl url, QString file, QString dir, bool hash);
    QCoro::Task<void> work();
    QCoro::Task<void> runPipeline();
    QCoro::Task<void> launch(QString exe, QString root);
    void promote();
    void throwIfCancelled() const;
    /** A box for the next setup child, kept where cancel() finds it. */
    std::shared_ptr<ProcessBox> setupBox();
    /** A private display for the Godot 3 editor, its authority file in `folder`; none
     *  where the server is not installed or fails to start. */
    QCoro::Task<std::unique_ptr<OffscreenDisplay>> offscreenDisplay(QString folder);
    /** Puts back what "Update the game" or "Reinstall" set aside, where the new copy
     *  is missing. */
    void restorePrevious();

    AppModel &m;
    GameRunner m_runner;
    QPointer<FileDownloader> m_downloader;
    std::shared_ptr<FetchHandle> m_checksumFetch;
    std::shared_ptr<ProcessBox> m_setupBox;
    std::weak_ptr<ProcessBox> m_displayBox; // the Godot 3 editor's private display
    bool m_cancelRequested = false;
    bool m_working = false; // the run's task is held
    QTimer m_promotion;     // starting -> playing once the game has run a while
};
