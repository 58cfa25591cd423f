#include "logtext.h"

#include "app/viewrules.h"
#include "process/logstore.h"

using namespace Qt::StringLiterals;

namespace {
// About one frame at 60 Hz: the list changes at most this often however fast the
// log fills.
constexpr int frameMs = 16;

// How many of `shown`'s first lines were dropped if `lines` continues it, or -1
// when it does not (the log was cleared, or more than everything shown has gone).
// Any matching offset gives the right text, so repeated lines do no harm.
qsizetype droppedFront(const QStringList &shown, const QStringList &lines)
{
    for (qsizetype dropped = 0; dropped < shown.size(); ++dropped) {
        const qsizetype kept = shown.size() - dropped;
        if (kept > lines.size())
            continue;
        if (shown.at(dropped) != lines.at(0) || shown.last() != lines.at(kept - 1))
            continue;
        bool same = true;
        for (qsizetype i = 1; same && i < kept - 1; ++i)
            same = shown.at(dropped + i) == lines.at(i);
        if (same)
            return dropped;
    }
    return -1;
}
} // namespace

LogText::LogText(QObject *parent) : QAbstractListModel(parent)
{
    m_frame.setSingleShot(true);
    m_frame.setInterval(frameMs);
    connect(&m_frame, &QTimer::timeout, this, &LogText::update);
}

QString LogText::emptyText()
{
    return u"The log is empty."_s;
}

void LogText::setLog(LogStore *log)
{
    if (m_log == log)
        return;
    if (m_log)
        disconnect(m_log, nullptr, this, nullptr);
    m_log = log;
    if (m_log)
        connect(m_log, &LogStore::linesChanged, this, &LogText::schedule);
    Q_EMIT logChanged();
    update();
}

QString LogText::shownText() const
{
    return m_shown.isEmpty() ? emptyText() : m_shown.join(u'\n');
}

int LogText::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_shown.size());
}

QVariant LogText::data(const QModelIndex &index, int role) const
{
    if (role != Qt::DisplayRole || !index.isValid() || index.row() >= m_shown.size())
        return {};
    return m_shown.at(index.row());
}

QString LogText::joined() const
{
    return m_log ? m_log->lines().join(u'\n') : QString();
}

void LogText::copy() const
{
    ViewRules::copyToClipboard(joined());
}

void LogText::schedule()
{
    if (!m_frame.isActive())
        m_frame.start();
}

void LogText::update()
{
    m_frame.stop();
    const QStringList lines = m_log ? m_log->lines() : QStringList();
    const bool wasEmpty = m_shown.isEmpty();
    const qsizetype dropped = m_shown.isEmpty() ? -1 : droppedFront(m_shown, lines);
    if (dropped < 0) {
        if (wasEmpty && lines.isEmpty())
            return;
        beginResetModel();
        m_shown = lines;
        endResetModel();
    } else {
        const qsizetype kept = m_shown.size() - dropped;
        if (dropped == 0 && kept == lines.size())
            return;
        if (dropped > 0) {
            beginRemoveRows({}, 0, int(dropped - 1));
            m_shown.remove(0, dropped);
            endRemoveRows();
        }
        if (kept < lines.size()) {
            beginInsertRows({}, int(kept), int(lines.size() - 1));
            m_shown = lines;
            endInsertRows();
        }
    }
    if (wasEmpty != m_shown.isEmpty())
        Q_EMIT emptyChanged();
    Q_EMIT shownChanged();
}
