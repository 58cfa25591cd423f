#pragma once

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QTimer>

class LogStore;
class QTextDocument;

/**
 * @brief Puts the log's lines into the log window's text, at most once a frame.
 *
 * A game can print thousands of lines a second. Rebuilding the whole text for each
 * would lay out 3000 lines every time, so the shown document is edited in place:
 * lines the log dropped are cut from the top, new ones appended at the end. The
 * reader's scroll position and selection stay where they were.
 */
class LogText : public QObject
{
    Q_OBJECT
    Q_PROPERTY(LogStore *log READ log WRITE setLog NOTIFY logChanged)
    /** The TextEdit whose document shows the log. */
    Q_PROPERTY(QObject *target READ target WRITE setTarget NOTIFY targetChanged)

public:
    explicit LogText(QObject *parent = nullptr);

    LogStore *log() const { return m_log; }
    void setLog(LogStore *log);
    QObject *target() const { return m_target; }
    void setTarget(QObject *target);

    /** The log's lines joined with line feeds; empty for an empty log. */
    Q_INVOKABLE QString joined() const;
    /** Puts joined() on the clipboard. */
    Q_INVOKABLE void copy() const;
    /** Brings the shown text up to date now rather than at the next frame. */
    Q_INVOKABLE void update();

    static QString emptyText();

Q_SIGNALS:
    void logChanged();
    void targetChanged();

private:
    void schedule();
    void replaceAll(QTextDocument *document);

    QPointer<LogStore> m_log;
    QPointer<QObject> m_target;
    QPointer<QTextDocument> m_document;
    QStringList m_shown; // what the document holds, line by line
    bool m_showsEmptyText = false;
    QTimer m_frame;
};
