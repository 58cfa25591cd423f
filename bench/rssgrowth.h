#pragma once

#include <QFile>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

// A field of /proc/self/status in kB, read without allocating: the sampler below runs
// it on a thread of its own while the measured code allocates.
inline qint64 procStatusKb(const char *field)
{
    const int fd = ::open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    char text[8192];
    const ssize_t n = ::read(fd, text, sizeof text - 1);
    ::close(fd);
    if (n <= 0)
        return -1;
    text[n] = '\0';
    const char *line = std::strstr(text, field);
    return line ? std::strtoll(line + std::strlen(field), nullptr, 10) : -1;
}

/**
 * @brief How far the resident set rose above its size at construction.
 *
 * Where the kernel allows it, VmHWM is reset to the current size first, so the peak
 * is exact and nothing competes with the measured code for the CPU; elsewhere VmRSS
 * is sampled every millisecond.
 */
class RssGrowth
{
public:
    RssGrowth()
    {
        m_baseKb = procStatusKb("VmRSS:");
        QFile clear(QStringLiteral("/proc/self/clear_refs"));
        m_exact = clear.open(QIODevice::WriteOnly) && clear.write("5") == 1;
        m_peakKb = m_baseKb;
        if (m_exact)
            return;
        m_sampler = std::thread([this] {
            while (!m_stop.load(std::memory_order_relaxed)) {
                m_peakKb = std::max(m_peakKb.load(), procStatusKb("VmRSS:"));
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    }
    ~RssGrowth() { stop(); }
    RssGrowth(const RssGrowth &) = delete;
    RssGrowth &operator=(const RssGrowth &) = delete;

    qint64 baseKb() const { return m_baseKb; }
    bool exact() const { return m_exact; }

    double stopMb()
    {
        stop();
        const qint64 peak = std::max(m_peakKb.load(), m_exact ? procStatusKb("VmHWM:") : 0);
        return double(peak - m_baseKb) / 1024.0;
    }

private:
    void stop()
    {
        m_stop = true;
        if (m_sampler.joinable())
            m_sampler.join();
    }

    qint64 m_baseKb = 0;
    bool m_exact = false;
    std::atomic<qint64> m_peakKb{0};
    std::atomic<bool> m_stop{false};
    std::thread m_sampler;
};
