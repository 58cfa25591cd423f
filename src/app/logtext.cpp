#include "logtext.h"

#include "app/appmodel.h"
#include "process/logstore.h"

#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>

using namespace Qt::StringLiterals;

namespace {
// About one frame at 60 Hz: the text changes at most this often however fast the
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

LogText::LogText(QObject *parent) : QObject(parent)
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

void LogText::setTarget(QObject *target)
{
    if (m_target == target)
        return;
    m_target = target;
    // QQuickTextEdit owns its document as a child; reaching it this way spares the
    // core a dependency on Qt Quick.
    m_document = target ? target->findChild<QTextDocument *>() : nullptr;
    m_shown.clear();
    m_showsEmptyText = false;
    Q_EMIT targetChanged();
    if (m_document) {
        // The edits below would otherwise pile up in the undo stack for as long as
        // the window is open.
        m_document->setUndoRedoEnabled(false);
        replaceAll(m_document);
    }
}

QString LogText::joined() const
{
    return m_log ? m_log->lines().join(u'\n') : QString();
}

void LogText::copy() const
{
    AppModel::copyToClipboard(joined());
}

void LogText::schedule()
{
    if (!m_frame.isActive())
        m_frame.start();
}

void LogText::replaceAll(QTextDocument *document)
{
    m_shown = m_log ? m_log->lines() : QStringList();
    m_showsEmptyText = m_shown.isEmpty();
    document->setPlainText(m_showsEmptyText ? emptyText() : m_shown.join(u'\n'));
}

void LogText::update()
{
    m_frame.stop();
    QTextDocument *document = m_document;
    if (!document)
        return;
    const QStringList lines = m_log ? m_log->lines() : QStringList();
    if (lines.isEmpty() || m_showsEmptyText) {
        if (!(lines.isEmpty() && m_showsEmptyText))
            replaceAll(document);
        return;
    }
    const qsizetype dropped = droppedFront(m_shown, lines);
    if (dropped < 0) {
        replaceAll(document);
        return;
    }
    const qsizetype kept = m_shown.size() - dropped;
    if (dropped == 0 && kept == lines.size())
        return;

    QTextCursor cursor(document);
    cursor.beginEditBlock();
    if (dropped > 0) {
        // The dropped lines and the line feed after the last of them.
        cursor.movePosition(QTextCursor::Start);
        cursor.setPosition(document->findBlockByNumber(int(dropped)).position(),
                           QTextCursor::KeepAnchor);
        cursor.removeSelectedText();
    }
    if (kept < lines.size()) {
        cursor.movePosition(QTextCursor::End);
        cursor.insertText(u"\n"_s + lines.sliced(kept).join(u'\n'));
    }
    cursor.endEditBlock();
    m_shown = lines;
}
