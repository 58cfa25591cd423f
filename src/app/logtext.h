#pragma once

#include <QAbstractListModel>
#include <QPointer>
#include <QStringList>
#include <QTimer>

class LogStore;

/**
 * @brief The log's lines as a list for the log window, updated at most once a frame,
 * and the one selection across them.
 *
 * A game can print tens of thousands of lines a second. Laying out all 3000 kept
 * lines as one text costs far more than a frame, so the window lists them and draws
 * only those in view. Each update tells the view which lines went at the top and
 * which came at the end, so the lines the reader looks at stay where they are.
 *
 * The reader still selects the log as one text: the selection is an anchor and a
 * caret, each a line and a column, kept here rather than in the drawn lines, so it
 * spans lines that are not laid out and survives scrolling and new lines. Lines that
 * leave the top take their part of the selection with them. Each row tells its
 * delegate which of its columns are selected and where the caret is.
 */
class LogText : public QAbstractListModel
{
    Q_OBJECT
    Q_PROPERTY(LogStore *log READ log WRITE setLog NOTIFY logChanged)
    Q_PROPERTY(bool empty READ isEmpty NOTIFY emptyChanged)
    /** What the window shows, as one text (for tests and a screen reader). */
    Q_PROPERTY(QString shownText READ shownText NOTIFY shownChanged)
    Q_PROPERTY(bool hasSelection READ hasSelection NOTIFY selectionChanged)
    /** The selection and the caret as offsets into shownText, for a screen reader. */
    Q_PROPERTY(int selectionStart READ selectionStart NOTIFY selectionChanged)
    Q_PROPERTY(int selectionEnd READ selectionEnd NOTIFY selectionChanged)
    Q_PROPERTY(int cursorPosition READ cursorPosition NOTIFY selectionChanged)
    /** The caret's line, which the view keeps in sight when the keys move it. */
    Q_PROPERTY(int cursorLine READ cursorLine NOTIFY selectionChanged)
    /** The item that shows the text to a screen reader: told when the selection or
     *  the caret moves, as a text field would tell it. */
    Q_PROPERTY(QObject *textItem MEMBER m_textItem NOTIFY textItemChanged)

public:
    enum Role { SelectionFromRole = Qt::UserRole + 1, SelectionToRole, CaretRole };

    explicit LogText(QObject *parent = nullptr);

    LogStore *log() const { return m_log; }
    void setLog(LogStore *log);
    bool isEmpty() const { return m_shown.isEmpty(); }
    QString shownText() const;

    int rowCount(const QModelIndex &parent = {}) const override;
    /** A row's text; its selected columns [from, to), -1 for none; its caret column,
     *  -1 when the caret is on another line. */
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QHash<int, QByteArray> roleNames() const override;

    bool hasSelection() const;
    int selectionStart() const;
    int selectionEnd() const;
    int cursorPosition() const;
    int cursorLine() const { return int(m_caret.line); }

    /** Puts the caret at `column` of `line` (past the end means the end); with
     *  `extend`, the selection runs from the anchor to there, otherwise there is none. */
    Q_INVOKABLE void moveCaret(int line, int column, bool extend);
    /** Selects the word, or the run of spaces or signs, at `column` of `line`. */
    Q_INVOKABLE void selectWord(int line, int column);
    Q_INVOKABLE void selectAll();
    /** The selected text, lines joined with line feeds. */
    Q_INVOKABLE QString selectedText() const;
    /** Puts the selected text on the clipboard, if there is any. */
    Q_INVOKABLE void copySelection() const;
    /** Offers the selected text for a middle-click paste, where the desktop has one. */
    Q_INVOKABLE void offerSelection() const;
    /** The keys of a read-only text: arrows, Home and End (with Ctrl, the whole log's),
     *  Page Up and Page Down by `pageLines`, each with Shift to select; select all and
     *  copy. Returns whether the key was one of them. */
    Q_INVOKABLE bool handleKey(int key, int modifiers, int pageLines);

    /** The log's lines joined with line feeds; empty for an empty log. */
    Q_INVOKABLE QString joined() const;
    /** Puts joined() on the clipboard. */
    Q_INVOKABLE void copy() const;
    /** Brings the list up to date now rather than at the next frame. */
    Q_INVOKABLE void update();

    static QString emptyText();

Q_SIGNALS:
    void logChanged();
    void emptyChanged();
    void shownChanged();
    void selectionChanged();
    void textItemChanged();

private:
    struct Point
    {
        qsizetype line = 0;
        qsizetype column = 0; // may lie past the line's end: Up and Down keep it
        friend auto operator<=>(const Point &, const Point &) = default;
    };

    void schedule();
    Point clamped(Point point) const;
    int offset(Point point) const;
    std::pair<Point, Point> ordered() const;
    void setSelection(Point anchor, Point caret);
    void rowsChanged(qsizetype first, qsizetype last);
    void tellReader();

    QPointer<LogStore> m_log;
    QStringList m_shown; // what the view holds, line by line
    mutable QString m_joined;
    mutable bool m_joinedValid = false;
    Point m_anchor;
    Point m_caret;
    QPointer<QObject> m_textItem;
    QTimer m_frame;
};
