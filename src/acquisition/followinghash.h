#pragma once

#include <QFuture>
#include <QString>

#include <functional>
#include <memory>

class QRunnable;
class QThreadPool;

/**
 * @brief The SHA-512 of a file that is still being written, computed on a thread of
 * its own as the bytes land, so that the digest is ready moments after the last one.
 *
 * The writer says how far the file has grown; the hashing thread reads up to there
 * through a descriptor opened when the object is made (the page cache still holds
 * the bytes), so the writer may rename the file at once, and sleeps when it has
 * caught up. Memory stays one read buffer whatever the file's size. The
 * result is the digest as 128 lower-case hex digits, or a sentence beginning "!"
 * when the file could not be read. Dropping the object stops the thread.
 */
class FollowingHash
{
public:
    explicit FollowingHash(QString path);
    ~FollowingHash();
    FollowingHash(const FollowingHash &) = delete;
    FollowingHash &operator=(const FollowingHash &) = delete;

    /** The file now holds `size` bytes. */
    void grown(qint64 size);
    /** The file is complete at `size` bytes; the digest follows. */
    void finish(qint64 size);
    /** How many bytes have been hashed so far; any thread. */
    qint64 hashed() const;
    /** Calls `caughtUp` once, on the hashing thread, when `position` has been hashed
     *  (at once if it has); a writer that waits for the hash to catch up resumes then. */
    void notifyAt(qint64 position, std::function<void()> caughtUp);
    QFuture<QString> digest() const;

    /** The threads that hash, one per download in flight. */
    static QThreadPool *threads();

    struct State;

private:
    std::shared_ptr<State> m_state;
    QRunnable *m_task = nullptr;
};
