#include "logtext.h"

#include "app/viewrules.h"
#include "process/logstore.h"

#include <QAccessible>
#include <QClipboard>
#include <QGuiApplication>
#include <QKeySequence>

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

// What a double click selects: a word, a run of spaces, or a run of anything else.
int charClass(QChar c)
{
    if (c.isLetterOrNumber() || c == u'_')
        return 0;
    return c.isSpace() ? 1 : 2;
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
    if (!m_joinedValid) {
        m_joined = m_shown.isEmpty() ? emptyText() : m_shown.join(u'\n');
        m_joinedValid = true;
    }
    return m_joined;
}

int LogText::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_shown.size());
}

QVariant LogText::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= m_shown.size())
        return {};
    const qsizetype row = index.row();
    switch (role) {
    case Qt::DisplayRole:
        return m_shown.at(row);
    case SelectionFromRole:
    case SelectionToRole: {
        const auto [start, end] = ordered();
        if (start == end || row < start.line || row > end.line)
            return -1;
        if (role == SelectionFromRole)
            return int(row == start.line ? start.column : 0);
        return int(row == end.line ? end.column : m_shown.at(row).size());
    }
    case CaretRole:
        return row == m_caret.line ? int(clamped(m_caret).column) : -1;
    default:
        return {};
    }
}

QHash<int, QByteArray> LogText::roleNames() const
{
    return {{Qt::DisplayRole, "display"},
            {SelectionFromRole, "selectionFrom"},
            {SelectionToRole, "selectionTo"},
            {CaretRole, "caret"}};
}

LogText::Point LogText::clamped(Point point) const
{
    if (m_shown.isEmpty())
        return {};
    point.line = std::clamp<qsizetype>(point.line, 0, m_shown.size() - 1);
    point.column = std::clamp<qsizetype>(point.column, 0, m_shown.at(point.line).size());
    return point;
}

std::pair<LogText::Point, LogText::Point> LogText::ordered() const
{
    const Point anchor = clamped(m_anchor), caret = clamped(m_caret);
    return anchor <= caret ? std::pair(anchor, caret) : std::pair(caret, anchor);
}

int LogText::offset(Point point) const
{
    point = clamped(point);
    qsizetype offset = point.column;
    for (qsizetype line = 0; line < point.line; ++line)
        offset += m_shown.at(line).size() + 1;
    return int(offset);
}

bool LogText::hasSelection() const
{
    const auto [start, end] = ordered();
    return start != end;
}

int LogText::selectionStart() const
{
    return offset(ordered().first);
}

int LogText::selectionEnd() const
{
    return offset(ordered().second);
}

int LogText::cursorPosition() const
{
    return offset(m_caret);
}

void LogText::rowsChanged(qsizetype first, qsizetype last)
{
    first = std::max<qsizetype>(first, 0);
    last = std::min(last, m_shown.size() - 1);
    if (first <= last)
        Q_EMIT dataChanged(index(int(first)), index(int(last)),
                           {SelectionFromRole, SelectionToRole, CaretRole});
}

void LogText::setSelection(Point anchor, Point caret)
{
    if (anchor == m_anchor && caret == m_caret)
        return;
    const auto lines = {m_anchor.line, m_caret.line, anchor.line, caret.line};
    m_anchor = anchor;
    m_caret = caret;
    rowsChanged(std::min(lines), std::max(lines));
    Q_EMIT selectionChanged();
    tellReader();
}

void LogText::tellReader()
{
    if (!m_textItem || !QAccessible::isActive())
        return;
    QAccessibleTextSelectionEvent selection(m_textItem, selectionStart(), selectionEnd());
    QAccessible::updateAccessibility(&selection);
    QAccessibleTextCursorEvent cursor(m_textItem, cursorPosition());
    QAccessible::updateAccessibility(&cursor);
}

void LogText::moveCaret(int line, int column, bool extend)
{
    if (m_shown.isEmpty())
        return;
    const Point caret = clamped({line, column});
    setSelection(extend ? clamped(m_anchor) : caret, caret);
}

void LogText::selectWord(int line, int column)
{
    if (m_shown.isEmpty())
        return;
    const Point at = clamped({line, column});
    const QString &text = m_shown.at(at.line);
    if (text.isEmpty())
        return moveCaret(line, 0, false);
    // The character under the pointer: the one before it at the line's end.
    const qsizetype under = std::min(at.column, text.size() - 1);
    const int kind = charClass(text.at(under));
    qsizetype from = under, to = under + 1;
    while (from > 0 && charClass(text.at(from - 1)) == kind)
        --from;
    while (to < text.size() && charClass(text.at(to)) == kind)
        ++to;
    setSelection({at.line, from}, {at.line, to});
}

void LogText::selectAll()
{
    if (!m_shown.isEmpty())
        setSelection({0, 0}, {m_shown.size() - 1, m_shown.last().size()});
}

QString LogText::selectedText() const
{
    const auto [start, end] = ordered();
    if (start == end)
        return {};
    if (start.line == end.line)
        return m_shown.at(start.line).mid(start.column, end.column - start.column);
    QString text = m_shown.at(start.line).mid(start.column);
    for (qsizetype line = start.line + 1; line < end.line; ++line)
        text += u'\n' + m_shown.at(line);
    return text + u'\n' + m_shown.at(end.line).left(end.column);
}

void LogText::copySelection() const
{
    if (hasSelection())
        ViewRules::copyToClipboard(selectedText());
}

void LogText::offerSelection() const
{
    QClipboard *clipboard = QGuiApplication::clipboard();
    if (hasSelection() && clipboard->supportsSelection())
        clipboard->setText(selectedText(), QClipboard::Selection);
}

bool LogText::handleKey(int key, int modifiers, int pageLines)
{
    const QKeySequence pressed{QKeyCombination(Qt::KeyboardModifiers(modifiers), Qt::Key(key))};
    if (QKeySequence::keyBindings(QKeySequence::SelectAll).contains(pressed)) {
        selectAll();
        return true;
    }
    if (QKeySequence::keyBindings(QKeySequence::Copy).contains(pressed)) {
        copySelection();
        return true;
    }
    if (m_shown.isEmpty())
        return false;
    const bool extend = modifiers & Qt::ShiftModifier;
    const bool wholeLog = modifiers & Qt::ControlModifier;
    const qsizetype last = m_shown.size() - 1;
    const auto lineEnd = [this](qsizetype line) { return m_shown.at(line).size(); };
    const Point at = clamped(m_caret);
    const qsizetype page = std::max(1, pageLines);
    Point caret = m_caret; // Up and Down keep the column of a longer line
    switch (key) {
    case Qt::Key_Left:
        if (!extend && hasSelection())
            caret = ordered().first;
        else if (at.column > 0)
            caret = {at.line, at.column - 1};
        else
            caret = at.line > 0 ? Point{at.line - 1, lineEnd(at.line - 1)} : at;
        break;
    case Qt::Key_Right:
        if (!extend && hasSelection())
            caret = ordered().second;
        else if (at.column < lineEnd(at.line))
            caret = {at.line, at.column + 1};
        else
            caret = at.line < last ? Point{at.line + 1, 0} : at;
        break;
    case Qt::Key_Up:
        caret.line = std::max<qsizetype>(at.line - 1, 0);
        break;
    case Qt::Key_Down:
        caret.line = std::min(at.line + 1, last);
        break;
    case Qt::Key_PageUp:
        caret.line = std::max<qsizetype>(at.line - page, 0);
        break;
    case Qt::Key_PageDown:
        caret.line = std::min(at.line + page, last);
        break;
    case Qt::Key_Home:
        caret = wholeLog ? Point{} : Point{at.line, 0};
        break;
    case Qt::Key_End:
        caret = wholeLog ? Point{last, lineEnd(last)} : Point{at.line, lineEnd(at.line)};
        break;
    default:
        return false;
    }
    setSelection(extend ? clamped(m_anchor) : caret, caret);
    return true;
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
    const Point anchor = m_anchor, caret = m_caret;
    if (dropped < 0) {
        if (wasEmpty && lines.isEmpty())
            return;
        beginResetModel();
        m_shown = lines;
        // Every line the selection held has gone.
        m_anchor = m_caret = {};
        m_joinedValid = false;
        endResetModel();
    } else {
        const qsizetype kept = m_shown.size() - dropped;
        if (dropped == 0 && kept == lines.size())
            return;
        if (dropped > 0) {
            beginRemoveRows({}, 0, int(dropped - 1));
            m_shown.remove(0, dropped);
            // What is left of the selection stays selected; a part in the lines
            // that went goes with them.
            for (Point *point : {&m_anchor, &m_caret}) {
                point->line -= dropped;
                if (point->line < 0)
                    *point = {};
            }
            m_joinedValid = false;
            endRemoveRows();
            if (std::min(anchor.line, caret.line) < dropped)
                rowsChanged(0, 0);
        }
        if (kept < lines.size()) {
            beginInsertRows({}, int(kept), int(lines.size() - 1));
            m_shown = lines;
            m_joinedValid = false;
            endInsertRows();
        }
    }
    if (wasEmpty != m_shown.isEmpty())
        Q_EMIT emptyChanged();
    Q_EMIT shownChanged();
    if (dropped != 0 && (anchor != Point{} || caret != Point{}))
        Q_EMIT selectionChanged();
}
