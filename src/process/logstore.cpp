#include "logstore.h"

#include <QMetaObject>
#include <QMutexLocker>

#include <algorithm>
#include <iterator>

namespace {
bool isNewline(QChar c)
{
    switch (c.unicode()) {
    case 0x000A: // line feed
    case 0x000B: // vertical tab
    case 0x000C: // form feed
    case 0x000D: // carriage return
    case 0x0085: // next line
    case 0x2028: // line separator
    case 0x2029: // paragraph separator
        return true;
    default:
        return false;
    }
}
} // namespace

LogStore::LogStore(QObject *parent) : QObject(parent) {}

QString LogStore::trimmedLine(const QString &line)
{
    qsizetype begin = 0;
    qsizetype end = line.size();
    while (begin < end && isNewline(line.at(begin)))
        ++begin;
    while (end > begin && isNewline(line.at(end - 1)))
        --end;
    if (begin == 0 && end == line.size())
        return line;
    return line.sliced(begin, end - begin);
}

void LogStore::append(const QString &line)
{
    push(Op{false, trimmedLine(line)});
}

void LogStore::clear()
{
    push(Op{true, {}});
}

// Operations from all threads go through one queue in call order. Only the first
// operation of a batch posts to the GUI thread; the rest ride along, so a child
// that floods its output costs one event per batch instead of one per line.
void LogStore::push(Op op)
{
    bool first;
    {
        QMutexLocker locker(&m_mutex);
        first = m_queue.empty();
        m_queuedChars += op.text.size();
        m_queue.push_back(std::move(op));
        if (m_queue.size() > size_t(2 * maxLines) || m_queuedChars > 2 * maxChars)
            compactQueue();
    }
    if (first)
        QMetaObject::invokeMethod(this, &LogStore::drain, Qt::QueuedConnection);
}

namespace {
// Where the newest lines of [from, end) that fit both bounds begin; at least one line.
template <typename It> It newestThatFit(It from, It end, qsizetype *chars)
{
    qsizetype count = 0;
    *chars = 0;
    for (It it = end; it != from;) {
        const qsizetype size = std::prev(it)->text.size();
        if (count == LogStore::maxLines || (count > 0 && *chars + size > LogStore::maxChars))
            return it;
        --it;
        ++count;
        *chars += size;
    }
    return from;
}
} // namespace

// A GUI thread that falls behind must not let the queue grow without bound. Lines
// that the caps would drop anyway, and everything before the last clear, can go now.
void LogStore::compactQueue()
{
    auto lastClear =
        std::find_if(m_queue.rbegin(), m_queue.rend(), [](const Op &op) { return op.clear; });
    const auto afterClear = lastClear == m_queue.rend() ? m_queue.begin() : lastClear.base();
    const auto keepFrom = newestThatFit(afterClear, m_queue.end(), &m_queuedChars);
    std::vector<Op> kept;
    kept.reserve(size_t(std::distance(keepFrom, m_queue.end())) + 1);
    if (lastClear != m_queue.rend())
        kept.push_back(Op{true, {}});
    std::move(keepFrom, m_queue.end(), std::back_inserter(kept));
    m_queue.swap(kept);
}

void LogStore::drain()
{
    std::vector<Op> batch;
    {
        QMutexLocker locker(&m_mutex);
        batch.swap(m_queue);
        m_queuedChars = 0;
    }
    if (batch.empty())
        return;

    // Only what follows the last clear matters, and of that only the newest lines.
    auto from = batch.begin();
    for (auto it = batch.begin(); it != batch.end(); ++it) {
        if (it->clear) {
            m_lines.clear();
            m_chars = 0;
            from = std::next(it);
        }
    }
    qsizetype added = 0;
    const auto keepFrom = newestThatFit(from, batch.end(), &added);
    if (keepFrom != from) { // the batch alone fills the log
        m_lines.clear();
        m_chars = 0;
    }
    for (auto it = keepFrom; it != batch.end(); ++it)
        m_lines.append(std::move(it->text));
    m_chars += added;
    qsizetype drop = 0;
    qsizetype dropped = 0;
    while (drop < m_lines.size() - 1 &&
           (m_lines.size() - drop > maxLines || m_chars - dropped > maxChars))
        dropped += m_lines[drop++].size();
    m_lines.remove(0, drop);
    m_chars -= dropped;
    Q_EMIT linesChanged();
}
