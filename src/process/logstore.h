#pragma once

#include <QMutex>
#include <QObject>
#include <QStringList>
#include <vector>

/**
 * @brief The bounded log of everything the launcher and its children print.
 *
 * `append` and `clear` may be called from any thread; their effect always reaches
 * `lines` later, on the GUI thread, in call order. Only the newest `maxLines` lines
 * are kept, and of those only as many of the newest as hold `maxChars` characters in
 * all (the newest line always stays), so a game that prints for hours, or prints
 * lines as long as a cut line can be, cannot grow the launcher.
 */
class LogStore : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QStringList lines READ lines NOTIFY linesChanged)

public:
    static constexpr qsizetype maxLines = 3000;
    static constexpr qsizetype maxChars = 4 * 1024 * 1024;

    explicit LogStore(QObject *parent = nullptr);

    Q_INVOKABLE void append(const QString &line);
    Q_INVOKABLE void clear();

    /** Read on the GUI thread only. */
    const QStringList &lines() const { return m_lines; }

    /** Removes the Unicode newline characters from both ends, nothing else. */
    static QString trimmedLine(const QString &line);

Q_SIGNALS:
    void linesChanged();

private:
    // One queued operation: a line to add, or (clear == true) an emptying.
    struct Op
    {
        bool clear = false;
        QString text;
    };

    void push(Op op);
    void drain();
    void compactQueue();

    QStringList m_lines;
    qsizetype m_chars = 0; // in m_lines
    QMutex m_mutex;
    std::vector<Op> m_queue;     // guarded by m_mutex
    qsizetype m_queuedChars = 0; // guarded by m_mutex
};
