// Play: from whatever is on disk to a running game, and how its end is judged.
#include "app/appmodel.h"

#include "acquisition/folderguard.h"
#include "acquisition/tempfolders.h"
#include "process/processfailure.h"
#include "project/projectinspector.h"

#include <QCoroTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFileInfo>
#include <QNetworkReply>
#include <QStringList>

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {
// The user's cancel reaches a download as Qt's cancelled error; nothing else does.
bool isCancelError(const std::exception &error)
{
    const auto *platform = dynamic_cast<const PlatformError *>(&error);
    return platform && platform->kind == PlatformError::Kind::Network &&
           platform->code == QNetworkReply::OperationCanceledError;
}
} // namespace

void AppModel::play()
{
    if (m_state.isBusy() || m_working)
        return;
    // Two launchers must never work on one data folder; the second one says so.
    if (!m_dataLock.acquire(dataLockPath())) {
        const QString why = u"Another Vantro 3D is already using this computer's game folder. "
                            u"Close it, then press Play again."_s;
        m_log->append(u"Problem: "_s + why);
        setState(AppState::needs(why));
        return;
    }
    setFailureReport(std::nullopt);
    m_cancelRequested = false;
    m_log->clear();
    m_working = true;
    // Not kept: the task frees itself when it ends, and the flag says it runs.
    work();
}

QCoro::Task<void> AppModel::work()
{
    const QPointer<AppModel> self(this);
    co_await runPipeline();
    if (self)
        m_working = false;
}

void AppModel::stopGame()
{
    if (m_runner.box)
        m_runner.box->stop();
}

void AppModel::shutDown()
{
    cancel();
    stopGame();
    m_promotion.stop();
    // Everything in flight now ends within the stop grace: downloads abort at once,
    // children are killed after it. Waiting here keeps the pipeline from resuming
    // into a model that is gone and from leaving half-written folders behind.
    QElapsedTimer clock;
    clock.start();
    const qint64 bound = m_config.stopGrace.count() + 10000;
    while (m_working && clock.elapsed() < bound)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
}

QCoro::Task<void> AppModel::runPipeline()
{
    const QPointer<AppModel> self(this);
    try {
        cleanLeftovers();
        const QString game = EngineManager::base() + u"/Game"_s;
        if (!ProjectInspector::findProjectRoot(game)) {
            co_await downloadGame();
            if (!self)
                co_return;
        }
        const auto root = ProjectInspector::findProjectRoot(game);
        if (!root)
            throw ProcessFailure(
                u"The download did not contain a Godot project (no project.godot)."_s);
        setInfo(ProjectInspector::inspect(*root));
        if (m_info->hasSubmodules)
            m_log->append(u"Note: the repository lists git submodules (.gitmodules). They are not "
                          u"part of the zip download, so the game may be missing files."_s);
        const EngineSpec spec = EngineManager::spec(*m_info);
        if (!EngineManager::executable(spec)) {
            co_await downloadEngine(spec);
            if (!self)
                co_return;
        }
        const auto exe = EngineManager::executable(spec);
        if (!exe)
            throw ProcessFailure(u"The Godot engine is missing after setup."_s);
        if (!isImported(*root)) {
            co_await importProject(*exe, spec, *root);
            if (!self)
                co_return;
        }
        co_await launch(*exe, *root);
        if (!self)
            co_return;
    } catch (const std::exception &error) {
        if (!self)
            co_return;
        if (!m_cancelRequested && !isCancelError(error)) {
            const QString why = describeError(error);
            m_log->append(u"Problem: "_s + why);
            setState(AppState::needs(why));
        } else {
            m_log->append(u"Cancelled."_s);
            refreshFromDisk();
            if (m_state != AppState::ready())
                setState(AppState::notDownloaded());
        }
    }
    setProgress(std::nullopt);
    setProgressText(QString());
    setSavesFolderExists(QFileInfo::exists(savesURL()));
}

QCoro::Task<void> AppModel::launch(QString exe, QString root)
{
    const QPointer<AppModel> self(this);
    const QStringList arguments = launchArguments(root, m_fullscreen, m_resolution);
    setState(AppState::starting());
    setProgressText(QString());
    QElapsedTimer clock;
    clock.start();
    m_promotion.start(m_config.promotionDelay);

    int exitCode = 0;
    try {
        exitCode = co_await m_runner.run(exe, arguments, m_log);
    } catch (const std::exception &error) {
        if (!self)
            co_return;
        m_promotion.stop();
        setState(AppState::needs(u"The game could not be started: "_s + describeError(error)));
        co_return;
    }
    if (!self)
        co_return;
    m_promotion.stop();
    const double elapsed = clock.nsecsElapsed() / 1e9;
    const bool stopped = m_runner.box && m_runner.box->isStopped();
    if (stopped) {
        setState(AppState::ready());
        co_return;
    }
    // The game's last lines are still on their way to the log.
    co_await QCoro::sleepFor(m_config.settleDelay);
    if (!self)
        co_return;
    const double threshold = m_config.promotionDelay.count() / 1000.0;
    if (judgeGameEnd(elapsed, exitCode, false, threshold) == GameEnd::Unexpected) {
        setFailureReport(failureReportText(elapsed, exitCode, m_log->lines()));
        setState(AppState::needs(u"the game closed unexpectedly"_s));
    } else {
        setState(AppState::ready());
    }
}

void AppModel::promote()
{
    if (m_state == AppState::starting() && m_runner.box && m_runner.box->isRunning())
        setState(AppState::playing());
}

QStringList AppModel::launchArguments(const QString &root, bool fullscreen,
                                      const QString &resolution)
{
    QStringList arguments{u"--path"_s, root};
    arguments.append(fullscreen ? u"--fullscreen"_s : u"--windowed"_s);
    // A fullscreen game takes the screen's own size.
    if (!fullscreen && resolution != u"Default"_s)
        arguments << u"--resolution"_s << resolution;
    return arguments;
}

AppModel::GameEnd AppModel::judgeGameEnd(double elapsedSeconds, int exitCode, bool stopped,
                                         double thresholdSeconds)
{
    if (stopped)
        return GameEnd::Stopped;
    // A game quit within its first seconds counts as unexpected too: the threshold
    // is the promotion delay on purpose.
    return elapsedSeconds < thresholdSeconds || exitCode != 0 ? GameEnd::Unexpected
                                                              : GameEnd::Normal;
}

QString AppModel::failureReportText(double elapsedSeconds, int exitCode, const QStringList &log)
{
    const qint64 seconds = qint64(elapsedSeconds);
    return u"The game closed after "_s + QString::number(seconds) +
           (seconds == 1 ? u" second"_s : u" seconds"_s) + u" (exit code "_s +
           QString::number(exitCode) + u"). Last lines of the log:\n\n"_s +
           log.mid(std::max<qsizetype>(0, log.size() - 30)).join(u'\n');
}

QString AppModel::dataLockPath()
{
    // Beside the base folder, not in it: removing everything must not drop the lock.
    return EngineManager::base() + u".lock"_s;
}

void AppModel::cleanLeftovers()
{
    // Only the holder of the data lock gets here, so whatever a run left in these
    // places belongs to a run that is over.
    const QString base = EngineManager::base();
    removeTree(base + u"/GameStaging"_s);
    removeTree(base + u"/Game.old"_s);
    removeTree(base + u"/Engine.old"_s);
    removeTree(base + u".old"_s);
    const QDir engines(base + u"/Engine"_s);
    for (const QString &entry :
         engines.entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System)) {
        if (entry.endsWith(u".unpacking"_s) || entry.endsWith(u".old"_s))
            removeTree(engines.filePath(entry));
    }
    removeAbandonedTemporaryFolders();
}

bool AppModel::DataLock::acquire(const QString &path)
{
    if (m_fd >= 0)
        return true;
    QDir().mkpath(QFileInfo(path).path());
    const QByteArray native = QFile::encodeName(path);
    int fd = ::open(native.constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0 && (errno == EISDIR || errno == ELOOP)) {
        // Something of the wrong kind in the lock's place: it is ours, so it goes.
        removeTree(path);
        fd = ::open(native.constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    }
    // A folder where no lock can be made is no sign of another launcher; the
    // pipeline will meet the real problem and name it.
    if (fd < 0)
        return true;
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return false;
    }
    m_fd = fd;
    return true;
}

AppModel::DataLock::~DataLock()
{
    if (m_fd >= 0)
        ::close(m_fd);
}
