#include "followinghash.h"

#include <QFile>
#include <QPromise>

#include <atomic>
#include <condition_variable>
#include <fcntl.h>
#include <mutex>
#include <openssl/evp.h>
#include <thread>
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
    qint64 notifyAt = -1; // guarded by lock, as is caughtUp
    std::function<void()> caughtUp;
    QPromise<QString> promise;
    std::thread thread;

    void run(const QString &path)
    {
        promise.start();
        promise.addResult(hash(path));
        promise.finish();
    }

    QString hash(const QString &path)
    {
        const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            return u"!Could not read the download \u201c"_s + path + u"\u201d."_s;
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
                    ::close(fd);
                    return QString::fromLatin1(
                        QByteArray(reinterpret_cast<const char *>(digest), int(length)).toHex());
                }
                until = available;
            }
            while (done < until && !stopping) {
                const ssize_t got =
                    ::pread(fd, buffer.data(), size_t(std::min(chunk, until - done)), off_t(done));
                if (got <= 0) {
                    ::close(fd);
                    return u"!Could not read the download \u201c"_s + path + u"\u201d."_s;
                }
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
        ::close(fd);
        return u"!The download's check was stopped."_s;
    }
};

FollowingHash::FollowingHash(QString path) : m_state(std::make_shared<State>())
{
    m_state->thread = std::thread([state = m_state, path] { state->run(path); });
}

FollowingHash::~FollowingHash()
{
    {
        std::lock_guard<std::mutex> locker(m_state->lock);
        m_state->stopping = true;
    }
    m_state->changed.notify_one();
    m_state->thread.join();
}

void FollowingHash::grown(qint64 size)
{
    {
        std::lock_guard<std::mutex> locker(m_state->lock);
        m_state->available = size;
    }
    m_state->changed.notify_one();
}

void FollowingHash::finish(qint64 size)
{
    {
        std::lock_guard<std::mutex> locker(m_state->lock);
        m_state->available = size;
        m_state->complete = true;
    }
    m_state->changed.notify_one();
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
