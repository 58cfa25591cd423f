#include "filedownloader.h"

#include "acquisition/followinghash.h"
#include "acquisition/network.h"
#include "common/bytecount.h"
#include "process/processfailure.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QMutexLocker>
#include <QNetworkRequest>
#include <QUuid>

#include <cerrno>
#include <cstring>
#include <limits>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

Q_LOGGING_CATEGORY(lcDownload, "vantro.download")

namespace {
// Qt's own buffer between its network thread and us; bounded so that a slow disk
// holds the transfer back instead of growing the launcher's memory.
constexpr qint64 readBufferBytes = 4 * 1024 * 1024;
// The body moves from Qt's buffer to the file through one reused piece of memory this
// size: small enough to stay in the CPU cache between the two copies. Handing each
// readAll() of up to 4 MiB to the file instead halves the download rate.
constexpr qsizetype chunkBytes = 256 * 1024;
constexpr qint64 hashLead = 16 * 1024 * 1024;

[[noreturn]] void throwFileError(const QString &what, const QString &path, const QString &why)
{
    throw PlatformError(PlatformError::Kind::FileSystem,
                        what + u" \u201c"_s + path + u"\u201d: "_s + why);
}

int httpStatus(const QNetworkReply *reply)
{
    return reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
}

// The disk that holds `folder`, or the nearest folder above it that exists yet.
struct Disk
{
    dev_t device = 0;
    qint64 freeBytes = -1; // -1: unknown
    QString folder;
};

Disk diskOf(const QString &folder)
{
    QString path = folder;
    for (;;) {
        struct stat status;
        struct statvfs space;
        const QByteArray native = QFile::encodeName(path);
        if (::stat(native.constData(), &status) == 0 && ::statvfs(native.constData(), &space) == 0)
            return {status.st_dev, qint64(space.f_bavail) * qint64(space.f_frsize), path};
        const QString parent = QFileInfo(path).path();
        if (parent == path)
            return {};
        path = parent;
    }
}
} // namespace

FileDownloader::FileDownloader(QString destDir, QString fileName, TaskScope scope, QObject *parent)
    : QObject(parent), m_destDir(std::move(destDir)), m_fileName(std::move(fileName)),
      m_scope(std::move(scope))
{}

FileDownloader::~FileDownloader()
{
    if (m_part)
        m_part->remove();
}

QCoro::Task<QString> FileDownloader::download(QUrl url, Progress onProgress)
{
    m_onProgress = std::move(onProgress);

    // The body goes to a hidden part file beside the target: the final rename is
    // then cheap, and the target itself is only ever a complete file.
    if (!QDir().mkpath(m_destDir))
        throwFileError(u"Could not create the folder"_s, m_destDir,
                       u"a file may stand in its place."_s);
    const QString target = QDir(m_destDir).filePath(m_fileName);
    m_part = std::make_unique<QFile>(QDir(m_destDir).filePath(
        u"."_s + m_fileName + u".part-"_s + QUuid::createUuid().toString(QUuid::WithoutBraces)));
    // Unbuffered: every write reaches the system at once, so its error is the
    // system's (a full disk says so) instead of a late flush's guess.
    if (!m_part->open(QIODevice::WriteOnly | QIODevice::Unbuffered))
        throwFileError(u"Could not write"_s, m_part->fileName(), m_part->errorString());
    if (m_hashing)
        m_hash = std::make_shared<FollowingHash>(m_part->fileName());

    useSystemProxy();
    m_manager = std::make_unique<QNetworkAccessManager>();
    QNetworkRequest request(url);
    request.setTransferTimeout(int(m_idleTimeout.count()));
    QNetworkReply *reply = nullptr;
    {
        QMutexLocker locker(&m_lock);
        if (!m_cancelled) {
            reply = m_manager->get(request);
            m_reply = reply;
        }
    }
    if (!reply) {
        m_part->remove();
        throw Cancelled();
    }
    reply->setReadBufferSize(readBufferBytes);
    connect(reply, &QNetworkReply::metaDataChanged, this, [this, reply] { checkSpace(reply); });
    connect(reply, &QNetworkReply::readyRead, this, &FileDownloader::onReadyRead);
    connect(reply, &QNetworkReply::downloadProgress, this,
            [this, reply](qint64 written, qint64 expected) {
                // Qt fills in the total at the end of a body without a length; the
                // server never announced one, so neither do we.
                if (!reply->header(QNetworkRequest::ContentLengthHeader).isValid())
                    expected = -1;
                if (m_onProgress)
                    m_onProgress(written, expected);
            });

    std::unique_ptr<QNetworkReply, void (*)(QNetworkReply *)> owned(
        reply, [](QNetworkReply *r) { r->deleteLater(); });
    co_await finished(reply, m_scope);
    readBody(true);
    m_part->close();

    auto fail = [this](auto &&error) {
        m_part->remove();
        throw error;
    };
    if (wasCancelled())
        fail(Cancelled());
    if (const auto problem = redirectProblem(reply->error()))
        fail(PlatformError(PlatformError::Kind::Network,
                           u"The download failed: "_s + *problem + u"."_s, reply->error()));
    const int status = httpStatus(reply);
    if (status != 0 && (status < 200 || status > 299))
        fail(ProcessFailure(u"The server answered with error "_s + QString::number(status) +
                            u"."_s));
    if (!m_writeError.isEmpty())
        fail(PlatformError(PlatformError::Kind::FileSystem, m_writeError));
    if (reply->error() != QNetworkReply::NoError) {
        // Qt reports an idle time-out as a cancellation; the player's is handled above.
        if (reply->error() == QNetworkReply::OperationCanceledError)
            fail(PlatformError(PlatformError::Kind::Network,
                               u"The download stalled: nothing arrived for "_s +
                                   QString::number(m_idleTimeout.count() / 1000.0) + u" seconds."_s,
                               QNetworkReply::TimeoutError));
        fail(PlatformError(PlatformError::Kind::Network,
                           u"The download failed: "_s + *networkProblem(reply) + u"."_s,
                           reply->error()));
    }
    const QVariant announced = reply->header(QNetworkRequest::ContentLengthHeader);
    if (announced.isValid() ? announced.toLongLong() != m_part->size()
                            : m_wholeCheck && !m_wholeCheck(m_part->fileName()))
        fail(PlatformError(
            PlatformError::Kind::Network,
            u"The download failed: the connection closed before the whole file arrived."_s,
            QNetworkReply::RemoteHostClosedError));

    // The hash reads through a descriptor of its own, which the rename leaves alone.
    if (m_hash)
        m_hash->finish(m_written);
    QFile::remove(target);
    if (!m_part->rename(target))
        fail(PlatformError(PlatformError::Kind::FileSystem,
                           u"Could not move the download to \u201c"_s + target + u"\u201d: "_s +
                               m_part->errorString()));
    m_part.reset();
    co_return target;
}

void FileDownloader::onReadyRead()
{
    readBody(false);
}

void FileDownloader::readBody(bool all)
{
    QPointer<QNetworkReply> reply;
    {
        QMutexLocker locker(&m_lock);
        reply = m_reply;
    }
    if (!reply || !reply->isOpen())
        return;
    const int status = httpStatus(reply);
    // An error page is not the file: it is read and dropped.
    const bool keep = (status == 0 || (status >= 200 && status <= 299)) && m_writeError.isEmpty();
    if (m_chunk.isEmpty())
        m_chunk.resize(chunkBytes);
    // Everything buffered is read now: readyRead only comes again when more arrives,
    // and with the read buffer full nothing more would.
    qint64 got;
    while (true) {
        // While hashing, the download keeps no more than this ahead of the hash: when
        // the last byte arrives, its digest is moments away, and the wire waits for
        // the hash instead of the hash for the player. Qt's own buffer then fills and
        // it stops reading the socket until this resumes.
        if (m_hash && !all && m_written - m_hash->hashed() > hashLead) {
            QPointer<FileDownloader> self(this);
            // From the hashing thread to the application's, where `self` is safe to read.
            m_hash->notifyAt(m_written - hashLead / 2, [self] {
                QMetaObject::invokeMethod(
                    QCoreApplication::instance(),
                    [self] {
                        if (self)
                            self->readBody(false);
                    },
                    Qt::QueuedConnection);
            });
            return;
        }
        if ((got = reply->read(m_chunk.data(), m_chunk.size())) <= 0)
            break;
        if (!keep)
            continue;
        if (!writeAll(m_chunk.constData(), got)) {
            m_writeError = u"Could not write the download to \u201c"_s + m_part->fileName() +
                           u"\u201d: "_s + QString::fromLocal8Bit(strerror(errno)) + u"."_s;
            qCWarning(lcDownload) << m_writeError;
            reply->abort();
            return;
        }
        m_written += got;
        if (m_hash)
            m_hash->grown(m_written);
    }
}

bool FileDownloader::writeAll(const char *data, qint64 size)
{
    const int fd = m_part->handle();
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size_t(size));
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0) {
            if (written == 0)
                errno = ENOSPC;
            return false;
        }
        data += written;
        size -= written;
    }
    return true;
}

// Fails the download before a byte is written when its announced size cannot fit:
// once where it is written, once more where it will be unpacked.
void FileDownloader::checkSpace(QNetworkReply *reply)
{
    const int status = httpStatus(reply);
    const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
    if (status < 200 || status > 299 || !length.isValid() || !m_writeError.isEmpty())
        return;
    const qint64 size = std::max<qint64>(0, length.toLongLong());
    const Disk here = diskOf(m_destDir);
    std::optional<Disk> there;
    if (!m_unpackDir.isEmpty())
        there = diskOf(m_unpackDir);
    // Sizes may be anything a server announces: the sum of the two is taken where
    // it cannot wrap, and a need beyond any disk reads as the largest count.
    const bool oneDisk = there && there->device == here.device;
    const qint64 neededHere = oneDisk ? (size > std::numeric_limits<qint64>::max() / 2
                                             ? std::numeric_limits<qint64>::max()
                                             : 2 * size)
                                      : size;
    auto tooSmall = [this, reply](const Disk &disk, qint64 needed) {
        if (disk.freeBytes < 0 || needed <= disk.freeBytes)
            return false;
        m_writeError = u"There is not enough free space: "_s + formatByteCount(needed) +
                       u" is needed on the disk that holds \u201c"_s + disk.folder +
                       u"\u201d, but only "_s + formatByteCount(disk.freeBytes) + u" is free."_s;
        qCWarning(lcDownload) << m_writeError;
        reply->abort();
        return true;
    };
    if (!tooSmall(here, neededHere) && there && !oneDisk)
        tooSmall(*there, size);
}

void FileDownloader::cancel()
{
    QPointer<QNetworkReply> reply;
    {
        QMutexLocker locker(&m_lock);
        m_cancelled = true;
        reply = m_reply;
    }
    if (reply)
        reply->abort();
}

bool FileDownloader::wasCancelled() const
{
    QMutexLocker locker(&m_lock);
    return m_cancelled;
}
