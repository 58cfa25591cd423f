#include "appmodel.h"

#include "acquisition/gameversion.h"
#include "app/housekeeping.h"
#include "app/pipeline.h"
#include "app/viewrules.h"
#include "process/processbox.h"
#include "process/processfailure.h"
#include "project/projectinspector.h"
#include "vantroconfig.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QSettings>

using namespace Qt::StringLiterals;

namespace {
const QString fullscreenKey = u"fullscreen"_s;
const QString resolutionKey = u"resolution"_s;
const QString defaultResolution = u"Default"_s;
} // namespace

QString AppModel::Config::defaultGameArchiveUrl()
{
    return QString::fromUtf8(Vantro::kGameArchiveUrl);
}

AppModel::AppModel(Config config, QObject *parent)
    : QObject(parent), m_config(std::move(config)), m_log(new LogStore(this)),
      m_dataFolder(m_config.layout), m_pipeline(std::make_unique<Pipeline>(*this)),
      m_housekeeping(std::make_unique<Housekeeping>(*this)),
      m_viewRules(std::make_unique<ViewRules>(*this))
{
    QSettings settings;
    m_fullscreen = settings.value(fullscreenKey, false).toBool();
    const QString stored = settings.value(resolutionKey, defaultResolution).toString();
    m_resolution = resolutionChoices().contains(stored) ? stored : defaultResolution;
    refreshFromDisk();
}

AppModel::~AppModel()
{
    // Children get the stop grace from the application, which outlives the model;
    // every suspended step resumes now, while the model is still whole, and unwinds.
    m_pipeline->cancel();
    m_pipeline->stopGame();
    m_scope.abandon();
}

AppModel *AppModel::shared()
{
    // Parented to the application, so it goes away with it at exit. The program starts
    // its size estimate once the window shows; models that tests build stay off the
    // network unless a test asks.
    static AppModel *instance = new AppModel(Config{}, QCoreApplication::instance());
    return instance;
}

void AppModel::shutDown()
{
    m_pipeline->cancel();
    m_pipeline->stopGame();
    // The event loop is over: the grace is waited out here, not on a timer.
    ProcessBox::endAll(m_config.stopGrace);
    m_scope.abandon();
    m_dataFolder.unlock();
}

QStringList AppModel::resolutionChoices()
{
    return {defaultResolution, u"1280x720"_s, u"1600x900"_s, u"1920x1080"_s};
}

bool AppModel::isGameRunning() const
{
    return m_state.kind() == AppState::Starting || m_state.kind() == AppState::Playing;
}

bool AppModel::canCancel() const
{
    return m_state.kind() == AppState::Downloading || m_state.kind() == AppState::SettingUp;
}

bool AppModel::isWorking() const
{
    return m_pipeline->isWorking();
}

void AppModel::play()
{
    m_pipeline->play();
}

void AppModel::cancel()
{
    m_pipeline->cancel();
}

void AppModel::stopGame()
{
    m_pipeline->stopGame();
}

void AppModel::updateGame()
{
    m_housekeeping->updateGame();
}

void AppModel::reinstall()
{
    m_housekeeping->reinstall();
}

void AppModel::removeEverything()
{
    m_housekeeping->removeEverything();
}

void AppModel::showSaves()
{
    m_housekeeping->showSaves();
}

void AppModel::revealInFinder()
{
    m_housekeeping->revealInFinder();
}

QCoro::Task<void> AppModel::loadSizeEstimate()
{
    return m_housekeeping->loadSizeEstimate();
}

QCoro::Task<qint64> AppModel::installedSize()
{
    return m_housekeeping->installedSize();
}

void AppModel::setState(const AppState &state)
{
    if (m_state == state)
        return;
    m_state = state;
    Q_EMIT stateChanged();
}

void AppModel::setProgress(std::optional<double> progress)
{
    if (m_progress == progress)
        return;
    m_progress = progress;
    Q_EMIT progressChanged();
}

void AppModel::setProgressText(const QString &text)
{
    if (m_progressText == text)
        return;
    m_progressText = text;
    Q_EMIT progressTextChanged();
}

void AppModel::setSetupNote(const QString &note)
{
    if (m_setupNote == note)
        return;
    m_setupNote = note;
    Q_EMIT setupNoteChanged();
}

void AppModel::beginStep(const AppState &state, const QString &progressText)
{
    setState(state);
    setProgress(std::nullopt);
    setProgressText(progressText);
    setSetupNote(QString());
}

void AppModel::setInfo(std::optional<ProjectInfo> info)
{
    m_info = std::move(info);
    Q_EMIT infoChanged();
}

void AppModel::setFailureReport(std::optional<QString> report)
{
    if (m_failureReport == report)
        return;
    m_failureReport = std::move(report);
    Q_EMIT failureReportChanged();
}

void AppModel::setDownloadSizeText(std::optional<QString> text)
{
    if (m_downloadSizeText == text)
        return;
    m_downloadSizeText = std::move(text);
    Q_EMIT downloadSizeTextChanged();
}

void AppModel::setSavesFolderExists(bool exists)
{
    if (m_savesFolderExists == exists)
        return;
    m_savesFolderExists = exists;
    Q_EMIT savesFolderExistsChanged();
}

void AppModel::setFullscreen(bool fullscreen)
{
    m_fullscreen = fullscreen;
    QSettings().setValue(fullscreenKey, fullscreen);
    Q_EMIT fullscreenChanged();
}

void AppModel::setResolution(const QString &resolution)
{
    m_resolution = resolution;
    QSettings().setValue(resolutionKey, resolution);
    Q_EMIT resolutionChanged();
}

QVariant AppModel::progressValue() const
{
    return m_progress ? QVariant(*m_progress) : QVariant();
}

QVariant AppModel::infoValue() const
{
    return m_info ? QVariant::fromValue(*m_info) : QVariant();
}

QVariant AppModel::downloadSizeTextValue() const
{
    return m_downloadSizeText ? QVariant(*m_downloadSizeText) : QVariant();
}

QVariant AppModel::failureReportValue() const
{
    return m_failureReport ? QVariant(*m_failureReport) : QVariant();
}

QString AppModel::savesURL() const
{
    return layout().saves(m_info ? m_info->name : u"Zorbit"_s);
}

bool AppModel::isImported(const QString &root, qint64 major) const
{
    return QFileInfo(layout().marker()).isFile() && EngineManager::importIsComplete(root, major);
}

QString AppModel::gameVersion() const
{
    return m_gameVersion ? GameVersion::shortForm(*m_gameVersion) : QString();
}

QString AppModel::newerVersion() const
{
    const bool differs = m_gameVersion && GameVersion::isCommit(*m_gameVersion) &&
                         !m_latestVersion.isEmpty() && m_latestVersion != *m_gameVersion;
    return differs ? GameVersion::shortForm(m_latestVersion) : QString();
}

void AppModel::refreshGameVersion()
{
    const auto record = GameVersion::read(layout());
    if (record != m_gameVersion) {
        m_gameVersion = record;
        Q_EMIT versionsChanged();
    }
}

void AppModel::setLatestVersion(const QString &record)
{
    if (record != m_latestVersion) {
        m_latestVersion = record;
        Q_EMIT versionsChanged();
    }
}

void AppModel::startUpdateChecks()
{
    m_housekeeping->startUpdateChecks();
}

void AppModel::refreshFromDisk()
{
    refreshGameVersion();
    const auto root = ProjectInspector::findProjectRoot(layout().game());
    if (root) {
        setInfo(ProjectInspector::inspect(*root));
        if (!m_state.isBusy()) {
            try {
                const EngineSpec spec = EngineManager::spec(*m_info);
                const bool ready =
                    EngineManager::executable(layout(), spec) && isImported(*root, spec.major);
                setState(ready ? AppState::ready() : AppState::notDownloaded());
            } catch (const ProcessFailure &) {
                // A project this launcher cannot set up is told about when Play is pressed.
                setState(AppState::notDownloaded());
            }
        }
    } else {
        if (m_info)
            setInfo(std::nullopt);
        if (!m_state.isBusy())
            setState(AppState::notDownloaded());
    }
    setSavesFolderExists(QFileInfo::exists(savesURL()));
}
