// The acquisition steps of the pipeline: downloads, the game's unpack, the
// engine's verified install and the import, and the cancel that interrupts them.
#include "app/appmodel.h"

#include "acquisition/engineinstall.h"
#include "acquisition/filedownloader.h"
#include "acquisition/folderguard.h"
#include "acquisition/importwatcher.h"
#include "acquisition/network.h"
#include "acquisition/repodownloader.h"
#include "acquisition/tempfolders.h"
#include "app/bytecount.h"
#include "process/processfailure.h"
#include "process/runprocess.h"
#include "project/projectinspector.h"

#include <QCoroFuture>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QUuid>
#include <QtConcurrent>

using namespace Qt::StringLiterals;

namespace {
bool isValidAddress(const QUrl &url)
{
    return url.isValid() && !url.scheme().isEmpty() && !url.host().isEmpty();
}
} // namespace

void AppModel::cancel()
{
    m_cancelRequested = true;
    if (m_downloader)
        m_downloader->cancel();
    if (m_checksumFetch)
        m_checksumFetch->cancel();
    if (m_setupBox)
        m_setupBox->stop();
}

QString AppModel::makeTempDir()
{
    const QString path = QDir::tempPath() + u"/vantro-"_s +
                         QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
    if (!QDir().mkpath(path))
        throw PlatformError(PlatformError::Kind::FileSystem,
                            u"Could not create the temporary folder \u201c"_s + path +
                                u"\u201d."_s);
    holdTemporaryFolder(path);
    return path;
}

QCoro::Task<QString> AppModel::download(QString name, QString label, QUrl url, QString file,
                                        QString dir)
{
    Q_UNUSED(name); // the user sees the label; the name is for the caller
    auto downloader = std::make_unique<FileDownloader>(dir, file);
    downloader->setIdleTimeout(m_config.downloadIdleTimeout);
    downloader->setUnpackFolder(EngineManager::base());
    m_downloader = downloader.get();
    if (m_cancelRequested)
        downloader->cancel();

    setState(AppState::downloading(label));
    setProgress(std::nullopt);
    setProgressText(u"Starting\u2026"_s);
    m_log->append(u"Downloading "_s + url.toString());

    QElapsedTimer clock;
    clock.start();
    QPointer<AppModel> self(this);
    auto onProgress = [self, clock](qint64 written, qint64 expected) {
        QMetaObject::invokeMethod(
            self,
            [self, clock, written, expected] {
                if (!self)
                    return;
                // The floor keeps the first report from showing an absurd speed.
                const double elapsed = std::max(clock.nsecsElapsed() / 1e9, 0.1);
                const QString speed = formatByteCount(qint64(written / elapsed)) + u"/s"_s;
                if (expected < 1) {
                    self->setProgress(std::nullopt);
                    self->setProgressText(formatByteCount(written) + u" \u00b7 "_s + speed);
                } else {
                    self->setProgress(std::clamp(double(written) / double(expected), 0.0, 1.0));
                    self->setProgressText(formatByteCount(written) + u" of "_s +
                                          formatByteCount(expected) + u" \u00b7 "_s + speed);
                }
            },
            Qt::QueuedConnection);
    };
    co_return co_await downloader->download(url, onProgress);
}

QCoro::Task<void> AppModel::downloadGame()
{
    const QUrl url(m_config.gameArchiveUrl);
    if (!isValidAddress(url))
        throw ProcessFailure(u"Bad game address."_s);
    const QString base = EngineManager::base();
    const QString staging = base + u"/GameStaging"_s;
    const QString aside = base + u"/Game.old"_s;
    // What a killed run may have left would otherwise leak into this game.
    removeTree(staging);
    removeTree(aside);
    const FolderGuard temp{makeTempDir()};
    const QString name = u"game"_s, label = u"the game"_s, file = u"game.zip"_s;
    const QString zip = co_await download(name, label, url, file, temp.path);

    setState(AppState::settingUp(u"unpacking the game"_s));
    // Whatever happens, no half-unpacked copy stays behind; after the move it is gone anyway.
    const FolderGuard stagingGuard{staging};
    co_await RepoDownloader::unzip(zip, staging, m_log);
    if (!ProjectInspector::findProjectRoot(staging))
        throw ProcessFailure(u"The downloaded game has no project.godot file."_s);
    // Only now, and before the swap: the marker records the old game's import, and
    // must never stand beside another game.
    if (!removeTree(markerPath()))
        throw PlatformError(PlatformError::Kind::FileSystem,
                            u"Could not remove the old import record \u201c"_s + markerPath() +
                                u"\u201d."_s);
    replaceByRename(staging, base + u"/Game"_s, aside, u"the game"_s);
    m_log->append(u"Game unpacked."_s);
}

QCoro::Task<void> AppModel::downloadEngine(EngineSpec spec)
{
    const QUrl url = EngineManager::archiveUrl(spec, m_config.engineEndpoint);
    if (!isValidAddress(url))
        throw ProcessFailure(u"Bad engine address."_s);
    const QString label = u"Godot "_s + spec.version;
    setState(AppState::downloading(u"checksum for "_s + label));
    m_checksumFetch = std::make_shared<FetchHandle>();
    if (m_cancelRequested)
        m_checksumFetch->cancel();
    const QString expected = co_await EngineManager::expectedChecksum(
        spec, m_config.engineEndpoint, m_config.downloadIdleTimeout, m_checksumFetch);

    const FolderGuard temp{makeTempDir()};
    const QString zip = co_await download(spec.zipName, label, url, spec.zipName, temp.path);

    setState(AppState::settingUp(u"checking the engine download"_s));
    setProgress(std::nullopt);
    setProgressText(QString());
    // Exceptions do not cross QtConcurrent::run; carry the text back instead.
    // The future is a local: GCC 12 destroys temporaries of a co_await expression too early.
    auto hashing = QtConcurrent::run([zip] {
        try {
            return std::pair{EngineManager::sha512(zip), QString()};
        } catch (const std::exception &e) {
            return std::pair{QString(), describeError(e)};
        }
    });
    const auto [digest, error] = co_await hashing;
    if (!error.isEmpty())
        throw PlatformError(PlatformError::Kind::FileSystem, error);
    if (digest != expected)
        throw ProcessFailure(
            u"The engine download did not match its official checksum, so it was discarded."_s);
    m_log->append(u"Checksum OK (SHA-512)."_s);

    setState(AppState::settingUp(u"unpacking the engine"_s));
    co_await EngineManager::install(zip, spec, m_log);
}

QCoro::Task<void> AppModel::importProject(QString exe, EngineSpec spec, QString root)
{
    setState(AppState::settingUp(u"First-time setup, this can take a minute or more"_s));
    setProgress(std::nullopt);
    setProgressText(u"Godot is preparing the game's files\u2026"_s);
    // A cancel that came before the engine started must not start it at all.
    if (m_cancelRequested)
        throw ProcessFailure(u"Setup was cancelled."_s);
    auto box = std::make_shared<ProcessBox>(m_config.stopGrace);
    m_setupBox = box;

    std::unique_ptr<ImportWatcher> watcher;
    if (spec.major < 4) {
        m_log->append(u"Godot 3 prepares the game in its editor. A Godot window opens for a "
                      u"moment and is closed automatically; please leave it alone."_s);
        watcher = std::make_unique<ImportWatcher>(root, box, m_log, m_config.importPollInterval,
                                                  m_config.importDeadline);
    }
    LogStore *log = m_log;
    const int status = co_await runProcess(exe, spec.importArgs(root), box,
                                           [log](const QString &line) { log->append(line); });
    watcher.reset();

    if (box->isStopped() && m_cancelRequested)
        throw ProcessFailure(u"Setup was cancelled."_s);
    // The exit status is not consulted: an editor closed by the watcher ends by a
    // signal, and that is a success. The files decide.
    if (EngineManager::importIsComplete(root)) {
        // Whatever stands at the marker's place (a folder, say) would make it unwritable.
        removeTree(markerPath());
        QFile marker(markerPath());
        if (!marker.open(QIODevice::WriteOnly | QIODevice::Truncate))
            qWarning("Could not write the import marker: %s", qPrintable(marker.errorString()));
        co_return;
    }
    throw ProcessFailure(u"Godot did not finish preparing the game's files (exit code "_s +
                         QString::number(status) + u"). Open \"Show log\" for details."_s);
}
