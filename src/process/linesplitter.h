#pragma once

#include <QByteArray>
#include <QStringList>
#include <cstring>

/**
 * @brief Cuts a byte stream into UTF-8 text lines at line feeds.
 *
 * Only LF separates lines; a CR stays in its line. Bytes after the last LF wait in
 * `pending`, so a multi-byte character split across chunks is decoded whole. A line
 * longer than `maxLineBytes` is cut there (between characters) and the rest goes on
 * as a new line, so a child that never prints a line feed cannot grow the launcher.
 * Invalid UTF-8 becomes U+FFFD, one per maximal invalid subpart, never an error; a
 * byte order mark is an ordinary character.
 */
class LineSplitter
{
public:
    static constexpr qsizetype maxLineBytes = 64 * 1024;

    QStringList feed(QByteArrayView data);
    QStringList flush();

    // Calls sink for each complete line instead of building a list; the hot path
    // of a child that floods its output.
    template <typename Sink> void feed(QByteArrayView data, Sink &&sink);

    /** UTF-8 to UTF-16; each maximal subpart of an ill-formed sequence becomes one
     *  U+FFFD, and a leading U+FEFF is kept. */
    static QString decode(QByteArrayView bytes);

private:
    // Where a line of `bytes` that is too long is cut: at most maxLineBytes, never
    // inside a character.
    static qsizetype cutPoint(QByteArrayView bytes);

    QByteArray m_pending;
};

template <typename Sink> void LineSplitter::feed(QByteArrayView data, Sink &&sink)
{
    qsizetype start = 0;
    if (!m_pending.isEmpty()) {
        const qsizetype nl = data.indexOf('\n');
        const qsizetype take = nl < 0 ? data.size() : nl;
        // Only what can still belong to this line is appended: pending never holds
        // more than one cut's worth.
        while (m_pending.size() + take - start > maxLineBytes) {
            const qsizetype room = maxLineBytes - m_pending.size();
            m_pending.append(data.sliced(start, room));
            const qsizetype cut = cutPoint(m_pending);
            sink(decode(QByteArrayView(m_pending).first(cut)));
            m_pending.remove(0, cut);
            start += room;
        }
        if (nl < 0) {
            m_pending.append(data.sliced(start));
            return;
        }
        m_pending.append(data.sliced(start, nl - start));
        sink(decode(m_pending));
        m_pending.clear();
        start = nl + 1;
    }
    const char *const base = data.data();
    const qsizetype size = data.size();
    while (start < size) {
        const void *hit = memchr(base + start, '\n', size_t(size - start));
        const qsizetype end = hit ? static_cast<const char *>(hit) - base : size;
        while (end - start > maxLineBytes) {
            const qsizetype cut = cutPoint(QByteArrayView(base + start, end - start));
            sink(decode(QByteArrayView(base + start, cut)));
            start += cut;
        }
        if (!hit) {
            m_pending.append(base + start, size - start);
            return;
        }
        sink(decode(QByteArrayView(base + start, end - start)));
        start = end + 1;
    }
}
