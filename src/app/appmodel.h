#pragma once

#include "acquisition/datalayout.h"
#include "acquisition/enginemanager.h"
#include "app/appstate.h"
#include "app/datafolder.h"
#include "common/taskscope.h"
#include "process/logstore.h"
#include "project/projectinfo.h"

#include <QCoroTask>
#include <QObject>
#include <QVariant>
#include <chrono>
#include <memory>
#include <optional>

class Housekeeping;
class Pipeline;
class ViewRules;

/**
 * @brief The one observable model the windows read: the state and the commands
 * they bind to.
 *
 * Holds the state, the progress of the step under way, what was read from the
 * project, the two settings and the log. The work behind the commands lives in
 * Pipeline (Play, its steps and how a game's end is judged) and Housekeeping (sizes,
 * update, reinstall, remove everything, showing folders); what the windows derive
 * from the state lives in ViewRules. Those alone may change the state; everything
 * runs on the GUI thread.
 */
class AppModel : public QObject
{
    Q_OBJECT
    Q_PROPERTY(AppState state READ state NOTIFY stateChanged)
    Q_PROPERTY(QString stateTitle READ stateTitle NOTIFY stateChanged)
    Q_PROPERTY(QVariant progress READ progressValue NOTIFY progressChanged)
    Q_PROPERTY(QString progressText READ progressText NOTIFY progressTextChanged)
    Q_PROPERTY(QString setupNote READ setupNote NOTIFY setupNoteChanged)
    Q_PROPERTY(QVariant info READ infoValue NOTIFY infoChanged)
    Q_PROPERTY(QVariant downloadSizeText READ downloadSizeTextValue NOTIFY downloadSizeTextChanged)
    Q_PROPERTY(QVariant failureReport READ failureReportValue NOTIFY failureReportChanged)
    Q_PROPERTY(bool savesFolderExists READ savesFolderExists NOTIFY savesFolderExistsChanged)
    Q_PROPERTY(bool fullscreen READ fullscreen WRITE setFullscreen NOTIFY fullscreenChanged)
    Q_PROPERTY(QString resolution READ resolution WRITE setResolution NOTIFY resolutionChanged)
    Q_PROPERTY(QStringList resolutionChoices READ resolutionChoices CONSTANT)
    Q_PROPERTY(LogStore *log READ log CONSTANT)
    Q_PROPERTY(bool isGameRunning READ isGameRunning NOTIFY stateChanged)
    Q_PROPERTY(bool canCancel READ canCancel NOTIFY stateChanged)
    Q_PROPERTY(bool busy READ isBusy NOTIFY stateChanged)
    Q_PROPERTY(QString gameVersion READ gameVersion NOTIFY versionsChanged)
    Q_PROPERTY(QString newerVersion READ newerVersion NOTIFY versionsChanged)

public:
    /** What tests and packagers may change: where things come from, and delays. */
    struct Config
    {
        QString engineEndpoint = EngineManager::defaultEndpoint();
        QString gameArchiveUrl = defaultGameArchiveUrl();
        DataLayout layout = DataLayout::fromEnvironment();
        QString unpacker = QStringLiteral("/usr/bin/bsdtar");
        std::chrono::milliseconds downloadIdleTimeout{60000};
        // The Godot 3 import: judged once its folders have been quiet this long,
        // given up when they stay quiet this long with files still missing, and
        // closed at the deadline regardless.
        std::chrono::milliseconds importQuiet{800};
        std::chrono::milliseconds importHopeless{180 * 1000};
        std::chrono::milliseconds importDeadline{1200 * 1000};
        // The X server that hides the Godot 3 editor, looked up in PATH; empty for none.
        QString displayServer = QStringLiteral("Xvfb");
        // How long a game must run before it counts as playing, and before an
        // ending counts as normal.
        std::chrono::milliseconds promotionDelay{10000};
        // The pause after a game ended before its log is read for the report, so
        // that its last lines have reached the log.
        std::chrono::milliseconds settleDelay{300};
        // How long a child asked to terminate gets before it is killed.
        std::chrono::milliseconds stopGrace{3000};
        // How often, at most, the game's host is asked for a newer version.
        std::chrono::milliseconds updateCheckInterval{6 * 3600 * 1000};

        static QString defaultGameArchiveUrl();
    };

    explicit AppModel(Config config, QObject *parent = nullptr);
    ~AppModel() override;

    /** The instance the window and the quit guard share. */
    static AppModel *shared();

    AppState state() const { return m_state; }
    QString stateTitle() const { return m_state.title(); }
    std::optional<double> progress() const { return m_progress; }
    QString progressText() const { return m_progressText; }
    /** What the launcher asks of the player while a step runs; empty for nothing. */
    QString setupNote() const { return m_setupNote; }
    const std::optional<ProjectInfo> &info() const { return m_info; }
    std::optional<QString> downloadSizeText() const { return m_downloadSizeText; }
    std::optional<QString> failureReport() const { return m_failureReport; }
    bool savesFolderExists() const { return m_savesFolderExists; }
    bool fullscreen() const { return m_fullscreen; }
    QString resolution() const { return m_resolution; }
    /** The installed game's version as the player sees it; empty when unknown. */
    QString gameVersion() const;
    /** The version the game's host offers, when it is not the installed one. */
    QString newerVersion() const;
    LogStore *log() const { return m_log; }
    const Config &config() const { return m_config; }
    const DataLayout &layout() const { return m_config.layout; }
    ViewRules *viewRules() const { return m_viewRules.get(); }
    Pipeline &pipeline() const { return *m_pipeline; }
    Housekeeping &housekeeping() const { return *m_housekeeping; }

    void setFullscreen(bool fullscreen);
    void setResolution(const QString &resolution);

    static QStringList resolutionChoices();
    bool isGameRunning() const;
    bool canCancel() const;
    bool isBusy() const { return m_state.isBusy(); }
    /** True while the pipeline task runs. */
    bool isWorking() const;

    /** Godot's own save folder for the project; the launcher only reads it. */
    QString savesURL() const;
    /** The marker is there and the files say the import of `root` is complete. */
    bool isImported(const QString &root, qint64 major) const;
    /** Re-reads the disk: the project, whether it is ready to play, the save folder. */
    Q_INVOKABLE void refreshFromDisk();

    /** Starts the pipeline unless something is already under way. */
    Q_INVOKABLE void play();
    /** Stops the download or the setup process in flight. */
    Q_INVOKABLE void cancel();
    /** Stops the running game. */
    Q_INVOKABLE void stopGame();
    /** For quitting: ends every child within the stop grace (killing what is left),
     *  ends the pipeline and releases the data folder. Blocks at most the grace and a
     *  moment. */
    void shutDown();

    // Housekeeping. The three deleting commands do nothing while busy.
    Q_INVOKABLE void updateGame();
    Q_INVOKABLE void reinstall();
    Q_INVOKABLE void removeEverything();
    Q_INVOKABLE void showSaves();
    Q_INVOKABLE void revealInFinder();
    /** Sets downloadSizeText from the servers' announced sizes, engine first. */
    QCoro::Task<void> loadSizeEstimate();
    /** The space the files in the base folder take on disk, 0 when it is absent. */
    QCoro::Task<qint64> installedSize();
    /** Asks the game's host for a newer version now, when idle, and then at most every
     *  updateCheckInterval; nothing is ever downloaded by it. */
    void startUpdateChecks();

Q_SIGNALS:
    void stateChanged();
    void progressChanged();
    void progressTextChanged();
    void setupNoteChanged();
    void infoChanged();
    void downloadSizeTextChanged();
    void failureReportChanged();
    void savesFolderExistsChanged();
    void fullscreenChanged();
    void resolutionChanged();
    void versionsChanged();

private:
    friend class Pipeline;
    friend class Housekeeping;
    friend class ModelPreview;

    void setState(const AppState &state);
    void setProgress(std::optional<double> progress);
    void setProgressText(const QString &text);
    void setSetupNote(const QString &note);
    void setInfo(std::optional<ProjectInfo> info);
    void setFailureReport(std::optional<QString> report);
    void setDownloadSizeText(std::optional<QString> text);
    void setSavesFolderExists(bool exists);
    void refreshGameVersion();
    void setLatestVersion(const QString &record);
    /** Starts a step the player sees: its state, no fraction, its own line under the bar. */
    void beginStep(const AppState &state, const QString &progressText = {});

    QVariant progressValue() const;
    QVariant infoValue() const;
    QVariant downloadSizeTextValue() const;
    QVariant failureReportValue() const;

    Config m_config;
    // Every wait of the model's work belongs to it; it goes first when the model goes.
    TaskScope m_scope;
    AppState m_state = AppState::notDownloaded();
    std::optional<double> m_progress;
    QString m_progressText;
    QString m_setupNote;
    std::optional<ProjectInfo> m_info;
    std::optional<QString> m_downloadSizeText;
    std::optional<QString> m_failureReport;
    bool m_savesFolderExists = false;
    bool m_fullscreen = false;
    QString m_resolution;
    std::optional<QString> m_gameVersion; // the record on disk
    QString m_latestVersion;              // what the host named last

    LogStore *m_log;
    DataFolder m_dataFolder;
    std::unique_ptr<Pipeline> m_pipeline;
    std::unique_ptr<Housekeeping> m_housekeeping;
    std::unique_ptr<ViewRules> m_viewRules;
};
