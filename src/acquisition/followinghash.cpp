#include "followinghash.h"

#include <QFile>
#include <QPromise>
#include <QRunnable>
#include <QThreadPool>

#include <atomic>
#include <condition_variable>
#include <fcntl.h>
#include <mutex>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

struct FollowingHash::State
{
    std::mutex lock; // guards the two below
    std::condition_variable changed;
    qint64 available = 0;
    bool complete = false;
    // Read without the lock between chunks too, so that a stop never waits for a
    // whole file's worth of hashing.
    std::atomic<bool> stopping = false;
    std::atomic<qint64> hashed = 0;
    qint64 notifyAt = -1; // guarded by lock, as are caughtUp and ended
    std::function<void()> caughtUp;
    bool ended = false;
    QPromise<QString> promise;
    QString path;
    // Opened by the constructor, on the writer's thread: the writer may rename or
    // remove the file before the hashing thread first runs, which on a busy machine
    // can be after the last byte arrived.
    int fd = -1;

    ~State()
    {
        if (fd >= 0)
            ::close(fd);
    }

    void run()
    {
        promise.start();
        promise.addResult(hash());
        promise.finish();
        // A pooled thread lives on after the hash: what OpenSSL keeps per thread is
        // freed now rather than at a thread exit that may come only with the process.
        OPENSSL_thread_stop();
        {
            std::lock_guard<std::mutex> locker(lock);
            ended = true;
        }
        changed.notify_all();
    }

    QString unreadable() const
    {
        return u"!Could not read the download \u201c"_s + path + u"\u201d."_s;
    }

    QString hash()
    {
        if (fd < 0)
            return unreadable();
        std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                        &EVP_MD_CTX_free);
        EVP_DigestInit_ex(context.get(), EVP_sha512(), nullptr);
        constexpr qint64 chunk = 1024 * 1024;
        QByteArray buffer(chunk, Qt::Uninitialized);
        qint64 done = 0;
        for (;;) {
            qint64 until;
            {
                std::unique_lock<std::mutex> locker(lock);
                changed.wait(locker, [&] { return stopping || complete || available > done; });
                if (stopping)
                    break;
                if (complete && done >= available) {
                    unsigned char digest[EVP_MAX_MD_SIZE];
                    unsigned int length = 0;
                    EVP_DigestFinal_ex(context.get(), digest, &length);
                    return QString::fromLatin1(
                        QByteArray(reinterpret_cast<const char *>(digest), int(length)).toHex());
                }
                until = available;
            }
            while (done < until && !stopping) {
                const ssize_t got =
                    ::pread(fd, buffer.data(), size_t(std::min(chunk, until - done)), off_t(done));
                if (got <= 0)
                    return unreadable();
                EVP_DigestUpdate(context.get(), buffer.constData(), size_t(got));
                done += got;
                hashed = done;
                std::function<void()> call;
                {
                    std::lock_guard<std::mutex> locker(lock);
                    if (notifyAt >= 0 && done >= notifyAt) {
                        notifyAt = -1;
                        call = std::move(caughtUp);
                    }
                }
                if (call)
                    call();
            }
        }
        return stopped();
    }

    static QString stopped() { return u"!The download's check was stopped."_s; }
};

FollowingHash::FollowingHash(QString path) : m_state(std::make_shared<State>())
{
    m_state->fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    m_state->path = std::move(path);
    m_task = QRunnable::create([state = m_state] { state->run(); });
    m_task->setAutoDelete(false);
    threads()->start(m_task);
}

FollowingHash::~FollowingHash()
{
    if (threads()->tryTake(m_task)) {
        m_state->promise.start();
        m_state->promise.addResult(State::stopped());
        m_state->promise.finish();
    } else {
        std::unique_lock<std::mutex> locker(m_state->lock);
        m_state->stopping = true;
        m_state->changed.notify_all();
        m_state->changed.wait(locker, [this] { return m_state->ended; });
    }
    delete m_task;
}

QThreadPool *FollowingHash::threads()
{
    // Each download in flight holds one while it lasts; a fifth waits for a free one
    // rather than adding threads without end.
    static QThreadPool pool;
    static const bool bounded = (pool.setMaxThreadCount(4), true);
    Q_UNUSED(bounded);
    return &pool;
}

void FollowingHash::grown(qint64 size)
{
    {
        std::lock_guard<std::mutex> locker(m_state->lock);
        m_state->available = size;
    }
    m_state->changed.notify_all();
}

void FollowingHash::finish(qint64 size)
{
    {
        std::lock_guard<std::mutex> locker(m_state->lock);
        m_state->available = size;
        m_state->complete = true;
    }
    m_state->changed.notify_all();
}

qint64 FollowingHash::hashed() const
{
    return m_state->hashed;
}

void FollowingHash::notifyAt(qint64 position, std::function<void()> caughtUp)
{
    {
        std::lock_guard<std::mutex> locker(m_state->lock);
        if (m_state->hashed < position) {
            m_state->notifyAt = position;
            m_state->caughtUp = std::move(caughtUp);
            return;
        }
    }
    caughtUp();
}

QFuture<QString> FollowingHash::digest() const
{
    return m_state->promise.future();
}
