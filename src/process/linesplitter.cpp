#include "linesplitter.h"

QStringList LineSplitter::feed(QByteArrayView data)
{
    QStringList lines;
    feed(data, [&lines](QString &&line) { lines.append(std::move(line)); });
    return lines;
}

QStringList LineSplitter::flush()
{
    if (m_pending.isEmpty())
        return {};
    QStringList last{QString::fromUtf8(m_pending)};
    m_pending.clear();
    return last;
}
