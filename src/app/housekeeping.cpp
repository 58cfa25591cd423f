#include "housekeeping.h"

#include "acquisition/gameversion.h"
#include "acquisition/repodownloader.h"
#include "app/appmodel.h"
#include "app/pipeline.h"
#include "common/bytecount.h"
#include "common/fileops.h"
#include "process/processfailure.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QScopeGuard>
#include <QUrl>

#include <ftw.h>
#include <limits>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {
// Shows a file or folder in the file manager, selected; opens its folder when no
// file manager takes the call.
void reveal(const QString &path)
{
    const QUrl url = QUrl::fromLocalFile(path);
    const QUrl folder = QUrl::fromLocalFile(QFileInfo(path).absolutePath());
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        QDesktopServices::openUrl(folder);
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        u"org.freedesktop.FileManager1"_s, u"/org/freedesktop/FileManager1"_s,
        u"org.freedesktop.FileManager1"_s, u"ShowItems"_s);
    call << QStringList{url.toString(QUrl::FullyEncoded)} << QString();
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 5000));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher, [watcher, folder] {
        if (watcher->isError())
            QDesktopServices::openUrl(folder);
        watcher->deleteLater();
    });
}

// The space the files below `folder` take; folders themselves and links count nothing.
qint64 allocatedBytes(const QString &folder)
{
    static thread_local qint64 sum;
    sum = 0;
    auto add = [](const char *, const struct stat *status, int type, struct FTW *) {
        if (type == FTW_F && S_ISREG(status->st_mode))
            sum += qint64(status->st_blocks) * 512;
        return 0;
    };
    // A base folder that is a link is measured as the player sees it: what it holds.
    const QString target = QFileInfo(folder).canonicalFilePath();
    if (target.isEmpty() || ::nftw(QFile::encodeName(target).constData(), add, 32, FTW_PHYS) != 0)
        return 0;
    return sum;
}
} // namespace

bool Housekeeping::allowed()
{
    const AppState::Kind kind = m.state().kind();
    if (kind != AppState::NotDownloaded && kind != AppState::Ready && kind != AppState::Needs)
        return false;
    // Another launcher may be working on the same folder.
    return !m.isWorking() && m.m_dataFolder.lock();
}

void Housekeeping::updateGame()
{
    if (!allowed())
        return;
    const DataLayout &layout = m.layout();
    setAside(layout.marker(), layout.previousMarker());
    setAside(layout.gameVersion(), layout.previousGameVersion());
    setAside(layout.game(), layout.previousGame());
    m.setInfo(std::nullopt);
    // Cleared with the rest by play(), in call order: the notice belongs to the old run.
    m.log()->append(u"Updating the game. Save files are kept (Godot stores them outside this "
                    u"app's folder)."_s);
    m.play();
}

void Housekeeping::reinstall()
{
    if (!allowed())
        return;
    const DataLayout &layout = m.layout();
    setAside(layout.game(), layout.previousGame());
    setAside(layout.engines(), layout.previousEngines());
    setAside(layout.marker(), layout.previousMarker());
    setAside(layout.gameVersion(), layout.previousGameVersion());
    m.setInfo(std::nullopt);
    m.play();
}

void Housekeeping::removeEverything()
{
    if (!allowed())
        return;
    m.m_dataFolder.empty();
    m.setInfo(std::nullopt);
    m.setFailureReport(std::nullopt);
    m.setState(AppState::notDownloaded());
}

void Housekeeping::showSaves()
{
    const QString saves = m.savesURL();
    if (QFileInfo::exists(saves))
        reveal(saves);
    m.refreshFromDisk();
}

void Housekeeping::revealInFinder()
{
    const QString base = m.layout().base();
    QDir().mkpath(base);
    reveal(base);
}

QCoro::Task<void> Housekeeping::loadSizeEstimate()
{
    // What a first Play of the default game fetches: its Godot 3 build and its zip.
    ProjectInfo placeholder;
    placeholder.root = m.layout().game();
    placeholder.name = u"Zorbit"_s;
    placeholder.configVersion = 4;
    placeholder.licenseName = u"No licence file found in the repository"_s;
    std::optional<QUrl> engineUrl;
    try {
        engineUrl =
            EngineManager::archiveUrl(EngineManager::spec(placeholder), m.config().engineEndpoint);
    } catch (const ProcessFailure &) {
        // No build for this computer: the estimate counts the game alone.
    }
    const QUrl gameUrl(m.config().gameArchiveUrl);
    std::optional<qint64> engineSize;
    if (engineUrl && engineUrl->isValid())
        engineSize = co_await RepoDownloader::remoteSize(*engineUrl, m.m_scope);
    const std::optional<qint64> gameSize = co_await RepoDownloader::remoteSize(gameUrl, m.m_scope);
    if (!engineSize && !gameSize)
        co_return;
    // Two announced sizes may add up past what a count holds.
    qint64 total = 0;
    if (__builtin_add_overflow(gameSize.value_or(0), engineSize.value_or(0), &total))
        total = std::numeric_limits<qint64>::max();
    if (total >= 1)
        m.setDownloadSizeText(u"about "_s + formatByteCount(total));
}

QCoro::Task<qint64> Housekeeping::installedSize()
{
    const QString base = m.layout().base();
    // Named: GCC 12 frees temporaries of a co_await expression too early.
    const auto walk = [base] { return allocatedBytes(base); };
    auto walking = onWorker(m.m_scope, walk);
    co_return co_await std::move(walking);
}

void Housekeeping::startUpdateChecks()
{
    if (m_updateTimer.isActive())
        return;
    const auto due = [this] {
        m_checkDue = true;
        checkWhenIdle();
    };
    QObject::connect(&m_updateTimer, &QTimer::timeout, &m, due);
    QObject::connect(&m, &AppModel::stateChanged, &m, [this] { checkWhenIdle(); });
    m_updateTimer.start(m.config().updateCheckInterval);
    due();
}

void Housekeeping::checkWhenIdle()
{
    if (!m_checkDue || m_checking || m.isBusy() || m.isWorking())
        return;
    m_checkDue = false;
    checkForUpdate();
}

QCoro::Task<void> Housekeeping::checkForUpdate()
{
    // Only a game known by its commit can be compared with the branch.
    const auto installed = GameVersion::read(m.layout());
    if (!installed || !GameVersion::isCommit(*installed))
        co_return;
    const QString failed = u"Could not check for a newer version of the game: "_s;
    const auto source = GameVersion::sourceOf(QUrl(m.config().gameArchiveUrl));
    if (!source) {
        m.m_log->append(failed + u"its address names no branch."_s);
        co_return;
    }
    m_checking = true;
    const auto done = qScopeGuard([this] { m_checking = false; });
    try {
        auto asking = GameVersion::latest(*source, m.config().downloadIdleTimeout,
                                          std::make_shared<FetchHandle>(m.m_scope));
        const QString latest = co_await std::move(asking);
        m.m_log->append(u"The game's host offers version "_s + GameVersion::shortForm(latest) +
                        u"."_s);
        m.setLatestVersion(latest);
    } catch (const Cancelled &) {
        // The launcher is closing.
    } catch (const std::exception &error) {
        // The player is told nothing: nothing is lost, and the next check may do better.
        m.m_log->append(failed + QString::fromUtf8(error.what()) + u"."_s);
    }
}
