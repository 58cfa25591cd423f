#pragma once

#include <QByteArray>
#include <QStringList>
#include <cstring>

/**
 * @brief Cuts a byte stream into UTF-8 text lines at line feeds.
 *
 * Only LF separates lines; a CR stays in its line. Bytes after the last LF wait in
 * `pending`, so a multi-byte character split across chunks is decoded whole.
 * Invalid UTF-8 becomes U+FFFD, never an error.
 */
class LineSplitter
{
public:
    QStringList feed(QByteArrayView data);
    QStringList flush();

    // Calls sink for each complete line instead of building a list; the hot path
    // of a child that floods its output.
    template <typename Sink> void feed(QByteArrayView data, Sink &&sink);

private:
    QByteArray m_pending;
};

template <typename Sink> void LineSplitter::feed(QByteArrayView data, Sink &&sink)
{
    qsizetype start = 0;
    if (!m_pending.isEmpty()) {
        const qsizetype nl = data.indexOf('\n');
        if (nl < 0) {
            m_pending.append(data);
            return;
        }
        m_pending.append(data.first(nl));
        sink(QString::fromUtf8(m_pending));
        m_pending.clear();
        start = nl + 1;
    }
    const char *const base = data.data();
    const qsizetype size = data.size();
    while (start < size) {
        const void *hit = memchr(base + start, '\n', size_t(size - start));
        if (!hit) {
            m_pending.append(base + start, size - start);
            return;
        }
        const qsizetype nl = static_cast<const char *>(hit) - base;
        sink(QString::fromUtf8(base + start, nl - start));
        start = nl + 1;
    }
}
