// Housekeeping beside the pipeline: the size estimate, the installed size, update,
// reinstall, remove everything, and showing folders.
#include "app/appmodel.h"

#include "acquisition/folderguard.h"
#include "acquisition/repodownloader.h"
#include "app/bytecount.h"
#include "process/processfailure.h"

#include <QCoroFuture>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUrl>
#include <QtConcurrent>

#include <ftw.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {
// A folder of ours goes out of sight under a name no check looks for, then goes:
// a launcher killed half-way leaves a leftover that the next Play clears, never a
// half-deleted folder that looks installed.
void removeAside(const QString &path, const QString &aside)
{
    removeTree(aside);
    if (QFileInfo(path).exists() || QFileInfo(path).isSymLink())
        QDir().rename(path, aside);
    removeTree(aside);
    removeTree(path);
}

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

qint64 allocatedBytes(const QString &folder)
{
    static thread_local qint64 sum;
    sum = 0;
    auto add = [](const char *, const struct stat *status, int type, struct FTW *ftw) {
        // The folder itself is not part of what it holds.
        if (ftw->level > 0 && type != FTW_NS)
            sum += qint64(status->st_blocks) * 512;
        return 0;
    };
    if (::nftw(QFile::encodeName(folder).constData(), add, 32, FTW_PHYS) != 0)
        return 0;
    return sum;
}
} // namespace

bool AppModel::maintenanceAllowed()
{
    const AppState::Kind kind = m_state.kind();
    if (kind != AppState::NotDownloaded && kind != AppState::Ready && kind != AppState::Needs)
        return false;
    // Another launcher may be working on the same folder.
    return !m_working && m_dataLock.acquire(dataLockPath());
}

void AppModel::updateGame()
{
    if (!maintenanceAllowed())
        return;
    const QString base = EngineManager::base();
    removeTree(markerPath());
    removeAside(base + u"/Game"_s, base + u"/Game.old"_s);
    setInfo(std::nullopt);
    // Cleared with the rest by play(), in call order: the notice belongs to the old run.
    m_log->append(u"Updating the game. Save files are kept (Godot stores them outside this "
                  u"app's folder)."_s);
    play();
}

void AppModel::reinstall()
{
    if (!maintenanceAllowed())
        return;
    const QString base = EngineManager::base();
    removeAside(base + u"/Game"_s, base + u"/Game.old"_s);
    removeAside(base + u"/Engine"_s, base + u"/Engine.old"_s);
    removeTree(markerPath());
    setInfo(std::nullopt);
    play();
}

void AppModel::removeEverything()
{
    if (!maintenanceAllowed())
        return;
    const QString base = EngineManager::base();
    removeAside(base, base + u".old"_s);
    setInfo(std::nullopt);
    setFailureReport(std::nullopt);
    setState(AppState::notDownloaded());
}

void AppModel::showSaves()
{
    const QString saves = savesURL();
    if (QFileInfo::exists(saves))
        reveal(saves);
    refreshFromDisk();
}

void AppModel::revealInFinder()
{
    const QString base = EngineManager::base();
    QDir().mkpath(base);
    reveal(base);
}

QCoro::Task<void> AppModel::loadSizeEstimate()
{
    const QPointer<AppModel> self(this);
    // What a first Play of the default game fetches: its Godot 3 build and its zip.
    ProjectInfo placeholder;
    placeholder.root = EngineManager::base() + u"/Game"_s;
    placeholder.name = u"Zorbit"_s;
    placeholder.configVersion = 4;
    placeholder.licenseName = u"No licence file found in the repository"_s;
    std::optional<QUrl> engineUrl;
    try {
        engineUrl =
            EngineManager::archiveUrl(EngineManager::spec(placeholder), m_config.engineEndpoint);
    } catch (const ProcessFailure &) {
        // No build for this computer: the estimate counts the game alone.
    }
    const QUrl gameUrl(m_config.gameArchiveUrl);
    std::optional<qint64> engineSize;
    if (engineUrl && engineUrl->isValid()) {
        engineSize = co_await RepoDownloader::remoteSize(*engineUrl);
        if (!self)
            co_return;
    }
    const std::optional<qint64> gameSize = co_await RepoDownloader::remoteSize(gameUrl);
    if (!self || (!engineSize && !gameSize))
        co_return;
    const qint64 total = gameSize.value_or(0) + engineSize.value_or(0);
    if (total >= 1)
        setDownloadSizeText(u"about "_s + formatByteCount(total));
}

QCoro::Task<qint64> AppModel::installedSize()
{
    const QString base = EngineManager::base();
    // A local: GCC 12 destroys temporaries of a co_await expression too early.
    auto walk = QtConcurrent::run([base] { return allocatedBytes(base); });
    co_return co_await walk;
}
