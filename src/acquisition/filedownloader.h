#pragma once

#include "common/taskscope.h"

#include <QCoroTask>
#include <QFile>
#include <QMutex>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QUrl>
#include <chrono>
#include <functional>
#include <memory>

/**
 * @brief Downloads one file into a folder, streaming the body to disk as it arrives.
 *
 * Each downloader serves one download with a network manager of its own (no disk
 * cache, no cookies kept). The finished file is put in place only when the server
 * answered 2xx and the whole body arrived, so a failed download never leaves a
 * file at the target. A download whose announced size does not fit on the disk
 * fails before anything is written. After `cancel`, the download throws Cancelled.
 */
class FollowingHash;

class FileDownloader : public QObject
{
    Q_OBJECT

public:
    using Progress = std::function<void(qint64 written, qint64 expected)>;
    static constexpr std::chrono::milliseconds defaultIdleTimeout{60000};

    FileDownloader(QString destDir, QString fileName, TaskScope scope = {},
                   QObject *parent = nullptr);
    ~FileDownloader() override;

    /** Returns destDir/fileName; throws ProcessFailure for a non-2xx answer,
     *  PlatformError for network and file-system errors, Cancelled after cancel(). */
    QCoro::Task<QString> download(QUrl url, Progress onProgress);
    void cancel();
    bool wasCancelled() const;

    /** Where the download will be unpacked: its announced size must fit there as
     *  well before anything is written. */
    void setUnpackFolder(const QString &folder) { m_unpackDir = folder; }

    /** Hashes the body with SHA-512 as it arrives; hash() then follows the file. */
    void setHashing(bool hashing) { m_hashing = hashing; }
    /** The hash of the download, once it has begun with hashing on. */
    std::shared_ptr<FollowingHash> hash() const { return m_hash; }

    /** A body the server sent without a length is taken as whole only when `check`
     *  finds it so: Qt 6.4 reports a chunked body whose connection closed before its
     *  last chunk as a clean finish. */
    void setWholeCheck(std::function<bool(const QString &path)> check)
    {
        m_wholeCheck = std::move(check);
    }

    /** A transfer that receives nothing for this long is abandoned. */
    void setIdleTimeout(std::chrono::milliseconds timeout) { m_idleTimeout = timeout; }

private:
    void onReadyRead();
    /** Reads what Qt holds; `all` also when the hash is far behind (the end). */
    void readBody(bool all);
    void checkSpace(QNetworkReply *reply);
    bool writeAll(const char *data, qint64 size);

    QString m_destDir;
    QString m_fileName;
    TaskScope m_scope;
    QString m_unpackDir;
    std::chrono::milliseconds m_idleTimeout = defaultIdleTimeout;
    std::function<bool(const QString &)> m_wholeCheck;
    Progress m_onProgress;

    mutable QMutex m_lock; // guards m_reply and m_cancelled
    QPointer<QNetworkReply> m_reply;
    bool m_cancelled = false;

    std::unique_ptr<QNetworkAccessManager> m_manager;
    std::unique_ptr<QFile> m_part;
    qint64 m_written = 0;
    bool m_hashing = false;
    std::shared_ptr<FollowingHash> m_hash;
    QByteArray m_chunk; // reused for every read, see onReadyRead
    QString m_writeError;
};
