#pragma once

#include "acquisition/enginemanager.h"
#include "app/appstate.h"
#include "process/gamerunner.h"
#include "process/logstore.h"
#include "process/processbox.h"
#include "project/projectinfo.h"

#include <QCoroTask>
#include <QObject>
#include <QPointer>
#include <QTimer>
#include <QUrl>
#include <QVariant>
#include <chrono>
#include <memory>
#include <optional>

class FetchHandle;
class FileDownloader;

/**
 * @brief The one observable model the whole window reads.
 *
 * Holds the state, the progress of the step under way, what was read from the
 * project, the two settings, the log and the game runner. Everything runs on the
 * GUI thread; steps are coroutines that suspend at network, process and sleep points
 * and throw on failure.
 */
class AppModel : public QObject
{
    Q_OBJECT
    Q_PROPERTY(AppState state READ state NOTIFY stateChanged)
    Q_PROPERTY(QString stateTitle READ stateTitle NOTIFY stateChanged)
    Q_PROPERTY(QVariant progress READ progressValue NOTIFY progressChanged)
    Q_PROPERTY(QString progressText READ progressText NOTIFY progressTextChanged)
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

public:
    /** What tests and packagers may change: where things come from, and delays. */
    struct Config
    {
        QString engineEndpoint = EngineManager::defaultEndpoint();
        QString gameArchiveUrl = defaultGameArchiveUrl();
        std::chrono::milliseconds downloadIdleTimeout{60000};
        std::chrono::milliseconds importPollInterval{2000};
        std::chrono::milliseconds importDeadline{1200 * 1000};
        // How long a game must run before it counts as playing, and before an
        // ending counts as normal.
        std::chrono::milliseconds promotionDelay{10000};
        // The pause after a game ended before its log is read for the report, so
        // that its last lines have reached the log.
        std::chrono::milliseconds settleDelay{300};
        // How long a child asked to terminate gets before it is killed.
        std::chrono::milliseconds stopGrace{3000};

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
    const std::optional<ProjectInfo> &info() const { return m_info; }
    std::optional<QString> downloadSizeText() const { return m_downloadSizeText; }
    std::optional<QString> failureReport() const { return m_failureReport; }
    bool savesFolderExists() const { return m_savesFolderExists; }
    bool fullscreen() const { return m_fullscreen; }
    QString resolution() const { return m_resolution; }
    LogStore *log() const { return m_log; }
    GameRunner &runner() { return m_runner; }
    const Config &config() const { return m_config; }

    void setFullscreen(bool fullscreen);
    void setResolution(const QString &resolution);

    static QStringList resolutionChoices();
    bool isGameRunning() const;
    bool canCancel() const;
    bool isBusy() const { return m_state.isBusy(); }
    /** True while the pipeline task runs. */
    bool isWorking() const { return m_working; }

    /** Godot's own save folder for the project; the launcher only reads it. */
    QString savesURL() const;
    /** Re-reads the disk: the project, whether it is ready to play, the save folder. */
    Q_INVOKABLE void refreshFromDisk();
    /** Starts the pipeline unless something is already under way. */
    Q_INVOKABLE void play();
    /** Stops the download or the setup process in flight. */
    Q_INVOKABLE void cancel();
    /** Stops the running game. */
    Q_INVOKABLE void stopGame();
    /** For quitting: cancels the setup in flight, stops the game and returns once the
     *  pipeline has ended and cleaned up (within a few seconds at most). */
    void shutDown();

    // Maintenance. The three deleting commands do nothing while busy.
    Q_INVOKABLE void updateGame();
    Q_INVOKABLE void reinstall();
    Q_INVOKABLE void removeEverything();
    Q_INVOKABLE void showSaves();
    Q_INVOKABLE void revealInFinder();
    /** Sets downloadSizeText from the servers' announced sizes, engine first. */
    QCoro::Task<void> loadSizeEstimate();
    /** The space the base folder takes on disk (allocated blocks), 0 when absent. */
    QCoro::Task<qint64> installedSize();

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

    // Pipeline steps. Each reports through state, progress and the log, and throws
    // ProcessFailure or PlatformError on failure.
    QCoro::Task<QString> download(QString name, QString label, QUrl url, QString file, QString dir);
    QCoro::Task<void> downloadGame();
    QCoro::Task<void> downloadEngine(EngineSpec spec);
    QCoro::Task<void> importProject(QString exe, EngineSpec spec, QString root);
    /** A fresh private folder vantro-<UUID> in the temporary folder. */
    static QString makeTempDir();
    bool isImported(const QString &root) const;

    void setState(const AppState &state);
    void setProgress(std::optional<double> progress);
    void setProgressText(const QString &text);
    void setFailureReport(std::optional<QString> report);
    void setDownloadSizeText(std::optional<QString> text);

Q_SIGNALS:
    void stateChanged();
    void progressChanged();
    void progressTextChanged();
    void infoChanged();
    void downloadSizeTextChanged();
    void failureReportChanged();
    void savesFolderExistsChanged();
    void fullscreenChanged();
    void resolutionChanged();

public:
    // What the windows show. The rules behind every text, colour and enabled state
    // that the QML binds to live here and in viewrules.cpp, so that they are tested
    // in C++ and the views stay bindings and command calls.
    Q_PROPERTY(QString stateColor READ stateColor NOTIFY windowChanged)
    Q_PROPERTY(QString actionButton READ actionButton NOTIFY windowChanged)
    Q_PROPERTY(QString playTitle READ playTitle NOTIFY windowChanged)
    Q_PROPERTY(QString progressStyle READ progressStyle NOTIFY windowChanged)
    Q_PROPERTY(QString downloadNote READ downloadNote NOTIFY windowChanged)
    Q_PROPERTY(QString summaryText READ summaryText NOTIFY windowChanged)
    Q_PROPERTY(QString licenceLine READ licenceLine NOTIFY windowChanged)
    Q_PROPERTY(QVariantList controlRows READ controlRows NOTIFY windowChanged)
    Q_PROPERTY(QString savesNote READ savesNote NOTIFY windowChanged)
    Q_PROPERTY(QString installedSizeText READ installedSizeText NOTIFY windowChanged)
    Q_PROPERTY(QString removeQuestion READ removeQuestion NOTIFY windowChanged)
    Q_PROPERTY(QString reinstallQuestion READ reinstallQuestion NOTIFY windowChanged)
    Q_PROPERTY(QString aboutLicenceText READ aboutLicenceText NOTIFY windowChanged)
    Q_PROPERTY(QUrl repositoryUrl READ repositoryUrl CONSTANT)
    Q_PROPERTY(QString repositoryLinkText READ repositoryLinkText CONSTANT)
    Q_PROPERTY(QString basedOnText READ basedOnText CONSTANT)

public:
    // What the windows show
    /** The state line's colour: a fixed colour, or empty for the palette's text colour. */
    QString stateColor() const;
    /** The one action button: "play", "cancel" or "stop". */
    QString actionButton() const;
    QString playTitle() const;
    /** "spinner", "bar", or empty when no progress is shown. */
    QString progressStyle() const;
    QString downloadNote() const;
    QString summaryText() const;
    QString licenceLine() const;
    QVariantList controlRows() const;
    QString savesNote() const;
    /** The base folder's size for the settings window; "…" until measured. */
    QString installedSizeText() const { return m_installedSizeText; }
    QString removeQuestion() const;
    QString reinstallQuestion() const;
    QString aboutLicenceText() const;
    QUrl repositoryUrl() const;
    QString repositoryLinkText() const;
    QString basedOnText() const;
    /** Shows "…", then the installed size once the folder walk is done. */
    Q_INVOKABLE void measureInstalledSize();
    /** Replaces the clipboard's content with `text` as plain text. */
    Q_INVOKABLE static void copyToClipboard(const QString &text);

Q_SIGNALS:
    void windowChanged();

private:
    bool connectWindowRules();
    QString m_installedSizeText = QStringLiteral("\u2026");
    quint64 m_sizeRequests = 0; // only the newest measurement may set the text
    bool m_windowRulesConnected = connectWindowRules();
    // End of what the windows show.

private:
    // Held from the first Play until the model goes: one launcher per data folder.
    class DataLock
    {
    public:
        DataLock() = default;
        DataLock(const DataLock &) = delete;
        DataLock &operator=(const DataLock &) = delete;
        ~DataLock();
        bool acquire(const QString &path);

    private:
        int m_fd = -1;
    };

    static QString markerPath();
    static QString dataLockPath();
    void cleanLeftovers();
    bool maintenanceAllowed();
    void promote();
    QCoro::Task<void> work();
    QCoro::Task<void> runPipeline();
    QCoro::Task<void> launch(QString exe, QString root);

    QVariant progressValue() const;
    QVariant infoValue() const;
    QVariant downloadSizeTextValue() const;
    QVariant failureReportValue() const;
    void setInfo(std::optional<ProjectInfo> info);
    void setSavesFolderExists(bool exists);

    Config m_config;
    AppState m_state = AppState::notDownloaded();
    std::optional<double> m_progress;
    QString m_progressText;
    std::optional<ProjectInfo> m_info;
    std::optional<QString> m_downloadSizeText;
    std::optional<QString> m_failureReport;
    bool m_savesFolderExists = false;
    bool m_fullscreen = false;
    QString m_resolution;

    LogStore *m_log;
    GameRunner m_runner;
    QPointer<FileDownloader> m_downloader;
    std::shared_ptr<FetchHandle> m_checksumFetch;
    std::shared_ptr<ProcessBox> m_setupBox;
    bool m_cancelRequested = false;
    bool m_working = false; // the pipeline task is held
    QTimer m_promotion;     // starting -> playing once the game has run a while
    DataLock m_dataLock;
};
