#include "pipeline.h"

#include "acquisition/engineinstall.h"
#include "acquisition/filedownloader.h"
#include "acquisition/followinghash.h"
#include "acquisition/gameversion.h"
#include "acquisition/importwatcher.h"
#include "acquisition/network.h"
#include "acquisition/offscreendisplay.h"
#include "acquisition/repodownloader.h"
#include "acquisition/tempfolders.h"
#include "acquisition/zipend.h"
#include "app/appmodel.h"
#include "common/bytecount.h"
#include "common/fileops.h"
#include "common/paths.h"
#include "process/processfailure.h"
#include "process/runprocess.h"
#include "project/projectinspector.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QScopeGuard>
#include <QStandardPaths>

using namespace Qt::StringLiterals;

namespace {
bool isValidAddress(const QUrl &url)
{
    return url.isValid() && !url.scheme().isEmpty() && !url.host().isEmpty();
}
} // namespace

Pipeline::Pipeline(AppModel &model) : m(model), m_runner(model.m_scope, model.config().stopGrace)
{
    m_promotion.setSingleShot(true);
    // A coarse timer may fire up to 5% early: a game shown as playing must also have run
    // long enough for its end to count as normal.
    m_promotion.setTimerType(Qt::PreciseTimer);
    connect(&m_promotion, &QTimer::timeout, this, &Pipeline::promote);
}

Pipeline::~Pipeline() = default;

void Pipeline::play()
{
    if (m.m_state.isBusy() || m_working)
        return;
    // Two launchers must never work on one data folder; the second one says so.
    if (!m.m_dataFolder.lock()) {
        const QString why = u"Another Vantro 3D is already using this computer's game folder. "
                            u"Close it, then press Play again."_s;
        m.m_log->append(u"Problem: "_s + why);
        m.setState(AppState::needs(why));
        return;
    }
    m.setFailureReport(std::nullopt);
    m_cancelRequested = false;
    m.m_log->clear();
    m_working = true;
    // Not kept: the task frees itself when it ends, the flag says it runs, and the
    // model's scope ends it if the model goes first.
    work();
}

QCoro::Task<void> Pipeline::work()
{
    co_await runPipeline();
    m_working = false;
}

void Pipeline::cancel()
{
    m_cancelRequested = true;
    if (m_downloader)
        m_downloader->cancel();
    if (m_checksumFetch)
        m_checksumFetch->cancel();
    if (m_setupBox)
        m_setupBox->stop();
    if (const auto display = m_displayBox.lock())
        display->stop();
}

void Pipeline::stopGame()
{
    if (m_runner.box)
        m_runner.box->stop();
}

void Pipeline::throwIfCancelled() const
{
    if (m_cancelRequested)
        throw Cancelled();
}

std::shared_ptr<ProcessBox> Pipeline::setupBox()
{
    throwIfCancelled();
    m_setupBox = std::make_shared<ProcessBox>(m.m_scope, m.config().stopGrace);
    return m_setupBox;
}

QCoro::Task<void> Pipeline::runPipeline()
{
    const DataLayout &layout = m.layout();
    try {
        // Only the holder of the data lock gets here, so what a run left in the
        // places of the sweep belongs to a run that is over.
        m.m_dataFolder.sweep();
        if (!ProjectInspector::findProjectRoot(layout.game()))
            co_await downloadGame();
        throwIfCancelled();
        const auto root = ProjectInspector::findProjectRoot(layout.game());
        if (!root)
            throw ProcessFailure(
                u"The download did not contain a Godot project (no project.godot)."_s);
        m.setInfo(ProjectInspector::inspect(*root));
        if (m.m_info->hasSubmodules)
            m.m_log->append(u"Note: the repository lists git submodules (.gitmodules). They are "
                            u"not part of the zip download, so the game may be missing files."_s);
        const EngineSpec spec = EngineManager::spec(*m.m_info);
        if (!EngineManager::executable(layout, spec))
            co_await downloadEngine(spec);
        throwIfCancelled();
        const auto exe = EngineManager::executable(layout, spec);
        if (!exe)
            throw ProcessFailure(u"The Godot engine is missing after setup."_s);
        if (!m.isImported(*root, spec.major))
            co_await importProject(*exe, spec, *root);
        throwIfCancelled();
        co_await launch(*exe, *root);
    } catch (const std::exception &error) {
        // The model is going: nothing is reported to it any more.
        if (m.m_scope.isAbandoned())
            co_return;
        if (!dynamic_cast<const Cancelled *>(&error) && !m_cancelRequested) {
            const QString why = describeError(error);
            m.m_log->append(u"Problem: "_s + why);
            m.setState(AppState::needs(why));
        } else {
            m.m_log->append(u"Cancelled."_s);
            m.refreshFromDisk();
            if (m.m_state != AppState::ready())
                m.setState(AppState::notDownloaded());
        }
    }
    m.setProgress(std::nullopt);
    m.setProgressText(QString());
    m.setSetupNote(QString());
    m.setSavesFolderExists(QFileInfo::exists(m.savesURL()));
}

QCoro::Task<QString> Pipeline::download(QString name, QString label, QUrl url, QString file,
                                        QString dir)
{
    Q_UNUSED(name); // the user sees the label; the name is for the caller
    auto fetching = fetch(label, url, file, dir, false);
    const Fetched fetched = co_await std::move(fetching);
    co_return fetched.path;
}

QCoro::Task<Pipeline::Fetched> Pipeline::fetch(QString label, QUrl url, QString file, QString dir,
                                               bool hash)
{
    auto downloader = std::make_unique<FileDownloader>(dir, file, m.m_scope);
    downloader->setHashing(hash);
    // Both downloads are zip archives: one that ends in its own end record is whole.
    downloader->setWholeCheck([](const QString &path) { return readZipEnd(path).has_value(); });
    downloader->setIdleTimeout(m.config().downloadIdleTimeout);
    downloader->setUnpackFolder(m.layout().base());
    m_downloader = downloader.get();
    if (m_cancelRequested)
        downloader->cancel();

    m.beginStep(AppState::downloading(label), u"Starting\u2026"_s);
    m.m_log->append(u"Downloading "_s + url.toString());

    QElapsedTimer clock;
    clock.start();
    QPointer<Pipeline> self(this);
    auto onProgress = [self, clock](qint64 written, qint64 expected) {
        QMetaObject::invokeMethod(
            self,
            [self, clock, written, expected] {
                if (!self)
                    return;
                AppModel &model = self->m;
                // The floor keeps the first report from showing an absurd speed.
                const double elapsed = std::max(clock.nsecsElapsed() / 1e9, 0.1);
                const QString speed = formatByteCount(qint64(written / elapsed)) + u"/s"_s;
                if (expected < 1) {
                    model.setProgress(std::nullopt);
                    model.setProgressText(formatByteCount(written) + u" \u00b7 "_s + speed);
                } else {
                    model.setProgress(std::clamp(double(written) / double(expected), 0.0, 1.0));
                    model.setProgressText(formatByteCount(written) + u" of "_s +
                                          formatByteCount(expected) + u" \u00b7 "_s + speed);
                }
            },
            Qt::QueuedConnection);
    };
    auto downloading = downloader->download(url, onProgress);
    QString path = co_await std::move(downloading);
    co_return Fetched{std::move(path), downloader->hash()};
}

QCoro::Task<void> Pipeline::downloadGame()
{
    const QUrl url(m.config().gameArchiveUrl);
    if (!isValidAddress(url))
        throw ProcessFailure(u"Bad game address."_s);
    const DataLayout &layout = m.layout();
    QString version;
    try {
        const FolderGuard temp{TempFolders::make()};
        const QString name = u"game"_s, label = u"the game"_s, file = u"game.zip"_s;
        const QString zip = co_await download(name, label, url, file, temp.path);
        throwIfCancelled();
        // Named: GCC 12 frees temporaries of a co_await expression too early.
        const auto identify = [zip] { return GameVersion::identify(zip); };
        auto identifying = onWorker(m.m_scope, identify);
        version = co_await std::move(identifying);

        m.beginStep(AppState::settingUp(u"unpacking the game"_s));
        // Whatever happens, no half-unpacked copy stays behind; after the move it is
        // gone anyway.
        const FolderGuard staging{layout.gameStaging()};
        const auto box = setupBox();
        co_await RepoDownloader::unzip(zip, staging.path, m.m_log, box, m.config().unpacker);
        if (!ProjectInspector::findProjectRoot(staging.path))
            throw ProcessFailure(u"The downloaded game has no project.godot file."_s);
        // Only now, and before the swap: the marker and the version describe the old
        // game, and must never stand beside another one.
        for (const QString &record : {layout.marker(), layout.gameVersion()})
            if (!removeTree(record))
                throw PlatformError(PlatformError::Kind::FileSystem,
                                    u"Could not remove the old game's record \u201c"_s + record +
                                        u"\u201d."_s);
        replaceByRename(staging.path, layout.game(), layout.gameAside(), u"the game"_s);
    } catch (...) {
        restorePrevious();
        throw;
    }
    // Written before anything says the game is in place: a launcher killed after that
    // point does not download the game again, and could not learn its version.
    const bool recorded = !version.isEmpty() && GameVersion::write(layout, version);
    removeTree(layout.previousGame());
    removeTree(layout.previousMarker());
    removeTree(layout.previousGameVersion());
    m.m_log->append(u"Game unpacked."_s);
    if (recorded)
        m.m_log->append(u"Game version: "_s + GameVersion::shortForm(version));
    m.refreshGameVersion();
}

QCoro::Task<void> Pipeline::downloadEngine(EngineSpec spec)
{
    const QString endpoint = m.config().engineEndpoint;
    const QUrl url = EngineManager::archiveUrl(spec, endpoint);
    if (!isValidAddress(url))
        throw ProcessFailure(u"Bad engine address."_s);
    const DataLayout &layout = m.layout();
    try {
        const QString label = u"Godot "_s + spec.version;
        m.beginStep(AppState::downloading(u"checksum for "_s + label));
        m_checksumFetch = std::make_shared<FetchHandle>(m.m_scope);
        if (m_cancelRequested)
            m_checksumFetch->cancel();
        const QString expected = co_await EngineManager::expectedChecksum(
            spec, endpoint, m.config().downloadIdleTimeout, m_checksumFetch);

        const FolderGuard temp{TempFolders::make()};
        // The archive is hashed while it arrives; what is left to check at the end is
        // the digest's last moments.
        auto fetching = fetch(label, url, spec.zipName, temp.path, true);
        const Fetched engine = co_await std::move(fetching);
        const QString &zip = engine.path;
        throwIfCancelled();

        m.beginStep(AppState::settingUp(u"checking the engine download"_s));
        auto hashing = resultOf(m.m_scope, engine.hash->digest());
        const QString digest = co_await std::move(hashing);
        if (digest.startsWith(u'!'))
            throw PlatformError(PlatformError::Kind::FileSystem, digest.mid(1));
        if (digest != expected)
            throw ProcessFailure(u"The engine download did not match its official checksum, so "
                                 u"it was discarded."_s);
        m.m_log->append(u"Checksum OK (SHA-512)."_s);
        throwIfCancelled();

        m.beginStep(AppState::settingUp(u"unpacking the engine"_s));
        const auto box = setupBox();
        co_await EngineManager::install(zip, spec, layout, m.m_log, box, m.config().unpacker);
    } catch (...) {
        restorePrevious();
        throw;
    }
    removeTree(layout.previousEngines());
}

void Pipeline::restorePrevious()
{
    const DataLayout &layout = m.layout();
    const QByteArray game = QFile::encodeName(layout.game());
    if (!exists(game, Links::DoNotFollow) &&
        exists(QFile::encodeName(layout.previousGame()), Links::DoNotFollow) &&
        setAside(layout.previousGame(), layout.game())) {
        setAside(layout.previousMarker(), layout.marker());
        setAside(layout.previousGameVersion(), layout.gameVersion());
        m.m_log->append(u"The update could not be downloaded; your installed game was kept."_s);
        if (const auto root = ProjectInspector::findProjectRoot(layout.game()))
            m.setInfo(ProjectInspector::inspect(*root));
    }
    if (!exists(QFile::encodeName(layout.engines()), Links::DoNotFollow) &&
        setAside(layout.previousEngines(), layout.engines()))
        m.m_log->append(
            u"The engine could not be downloaded again; your installed engine was kept."_s);
}

QCoro::Task<std::unique_ptr<OffscreenDisplay>> Pipeline::offscreenDisplay(QString folder)
{
    const QString server = m.config().displayServer.isEmpty()
                               ? QString()
                               : QStandardPaths::findExecutable(m.config().displayServer);
    if (server.isEmpty())
        co_return std::unique_ptr<OffscreenDisplay>();
    LogStore *log = m.m_log;
    const std::chrono::milliseconds timeout{10000};
    auto display = co_await OffscreenDisplay::start(
        server, folder, m.m_scope, m.config().stopGrace, timeout,
        [log](const QString &line) { log->append(line); }, &m_displayBox);
    if (!display)
        m.m_log->append(u"The off-screen display could not be started; the Godot editor opens "
                        u"on the screen."_s);
    co_return display;
}

QCoro::Task<void> Pipeline::importProject(QString exe, EngineSpec spec, QString root)
{
    m.beginStep(AppState::settingUp(u"First-time setup, this can take a minute or more"_s),
                u"Godot is preparing the game's files\u2026"_s);
    // A cancel that came before the engine started must not start it at all.
    if (m_cancelRequested)
        throw Cancelled(u"Setup was cancelled."_s);
    setupBox();

    // Godot 3 imports only in its editor: on a display of its own, nobody sees it or
    // types into it.
    std::optional<FolderGuard> temp;
    std::unique_ptr<OffscreenDisplay> display;
    if (spec.major < 4) {
        temp.emplace(TempFolders::make());
        display = co_await offscreenDisplay(temp->path);
        if (m_cancelRequested)
            throw Cancelled(u"Setup was cancelled."_s);
        const QString note =
            display ? u"Godot 3 prepares the game's files in the background; no window opens."_s
                    : u"Godot 3 prepares the game in its editor. A Godot window opens for a "
                      u"moment and is closed automatically; please leave it alone."_s;
        m.m_log->append(note);
        m.setSetupNote(note);
    }
    const auto clearNote = qScopeGuard([this] { m.setSetupNote(QString()); });
    LogStore *log = m.m_log;
    const QDeadlineTimer deadline(m.config().importDeadline);
    for (int run = 1;; ++run) {
        const auto box = run == 1 ? m_setupBox : setupBox();
        if (display) {
            box->setVariable(u"DISPLAY"_s, display->display());
            box->setVariable(u"XAUTHORITY"_s, display->authority());
            box->setVariable(u"WAYLAND_DISPLAY"_s, QString());
        }
        std::unique_ptr<ImportWatcher> watcher;
        if (spec.major < 4) {
            const ImportWatcher::Timing timing{
                m.config().importQuiet, m.config().importHopeless,
                std::chrono::milliseconds(std::max<qint64>(deadline.remainingTime(), 0))};
            watcher = std::make_unique<ImportWatcher>(root, box, log, timing);
        }
        int status = 0;
        try {
            status = co_await runProcess(exe, spec.importArgs(root), box,
                                         [log](const QString &line) { log->append(line); });
        } catch (const LaunchError &error) {
            throw PlatformError(PlatformError::Kind::Launch,
                                u"The Godot editor could not be started: "_s + error.reason +
                                    u"."_s);
        }
        const auto outcome = watcher ? watcher->outcome() : ImportWatcher::Outcome::Watching;
        const QStringList unprepared = watcher ? watcher->unprepared() : QStringList();
        watcher.reset();

        if (box->isStopped() && m_cancelRequested)
            throw Cancelled(u"Setup was cancelled."_s);
        // The exit status is not consulted: an editor closed by the watcher ends by a
        // signal, and that is a success. The files decide.
        if (EngineManager::importIsComplete(root, spec.major)) {
            const QString marker = m.layout().marker();
            // Whatever stands at the marker's place (a folder, say) would make it
            // unwritable.
            removeTree(marker);
            QFile file(marker);
            if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
                qWarning("Could not write the import marker: %s", qPrintable(file.errorString()));
            co_return;
        }
        if (outcome == ImportWatcher::Outcome::Hopeless && !unprepared.isEmpty())
            throw ProcessFailure(u"Godot did not prepare these files: "_s +
                                 unprepared.join(u", "_s) + u". Open \"Show log\" for details."_s);
        // Complete when it was closed, and not any more: the editor had begun another
        // pass over some files. Opened again, it finishes what it left.
        constexpr int runs = 3;
        if (outcome == ImportWatcher::Outcome::Complete && run < runs && !deadline.hasExpired()) {
            log->append(u"Godot had more to prepare; its editor is opened again."_s);
            continue;
        }
        throw ProcessFailure(u"Godot did not finish preparing the game's files (exit code "_s +
                             QString::number(status) + u"). Open \"Show log\" for details."_s);
    }
}

QCoro::Task<void> Pipeline::launch(QString exe, QString root)
{
    const QStringList arguments = launchArguments(root, m.m_fullscreen, m.m_resolution);
    m.beginStep(AppState::starting());
    QElapsedTimer clock;
    clock.start();
    m_promotion.start(m.config().promotionDelay);

    int exitCode = 0;
    try {
        exitCode = co_await m_runner.run(exe, arguments, m.m_log);
    } catch (const LaunchError &error) {
        m_promotion.stop();
        m.setState(AppState::needs(u"The game could not be started: "_s + error.reason + u"."_s));
        co_return;
    }
    m_promotion.stop();
    const double elapsed = clock.nsecsElapsed() / 1e9;
    if (m_runner.box->isStopped()) {
        m.setState(AppState::ready());
        co_return;
    }
    // The game's last lines are still on their way to the log.
    co_await sleepFor(m.m_scope, m.config().settleDelay);
    const double threshold = m.config().promotionDelay.count() / 1000.0;
    if (judgeGameEnd(elapsed, exitCode, false, threshold) == GameEnd::Unexpected) {
        m.setFailureReport(failureReportText(elapsed, exitCode, m.m_log->lines()));
        m.setState(AppState::needs(u"the game closed unexpectedly"_s));
    } else {
        m.setState(AppState::ready());
    }
}

void Pipeline::promote()
{
    if (m.m_state == AppState::starting() && m_runner.box && m_runner.box->isRunning())
        m.setState(AppState::playing());
}

QStringList Pipeline::launchArguments(const QString &root, bool fullscreen,
                                      const QString &resolution)
{
    QStringList arguments{u"--path"_s, root};
    arguments.append(fullscreen ? u"--fullscreen"_s : u"--windowed"_s);
    // A fullscreen game takes the screen's own size.
    if (!fullscreen && resolution != u"Default"_s)
        arguments << u"--resolution"_s << resolution;
    return arguments;
}

Pipeline::GameEnd Pipeline::judgeGameEnd(double elapsedSeconds, int exitCode, bool stopped,
                                         double thresholdSeconds)
{
    if (stopped)
        return GameEnd::Stopped;
    // A game quit within its first seconds counts as unexpected too: the threshold
    // is the promotion delay on purpose.
    return elapsedSeconds < thresholdSeconds || exitCode != 0 ? GameEnd::Unexpected
                                                              : GameEnd::Normal;
}

QString Pipeline::failureReportText(double elapsedSeconds, int exitCode, const QStringList &log)
{
    const qint64 seconds = qint64(elapsedSeconds);
    return u"The game closed after "_s + QString::number(seconds) +
           (seconds == 1 ? u" second"_s : u" seconds"_s) + u" (exit code "_s +
           QString::number(exitCode) + u"). Last lines of the log:\n\n"_s +
           log.mid(std::max<qsizetype>(0, log.size() - 30)).join(u'\n');
}
