#pragma once

#include <QAbstractListModel>
#include <QPointer>
#include <QStringList>
#include <QTimer>

class LogStore;

/**
 * @brief The log's lines as a list for the log window, updated at most once a frame.
 *
 * A game can print tens of thousands of lines a second. Laying out all 3000 kept
 * lines as one text costs far more than a frame, so the window lists them and draws
 * only those in view. Each update tells the view which lines went at the top and
 * which came at the end, so the lines the reader looks at stay where they are.
 */
class LogText : public QAbstractListModel
{
    Q_OBJECT
    Q_PROPERTY(LogStore *log READ log WRITE setLog NOTIFY logChanged)
    Q_PROPERTY(bool empty READ isEmpty NOTIFY emptyChanged)
    /** What the window shows, as one text (for tests and the accessible name). */
    Q_PROPERTY(QString shownText READ shownText NOTIFY shownChanged)

public:
    explicit LogText(QObject *parent = nullptr);

    LogStore *log() const { return m_log; }
    void setLog(LogStore *log);
    bool isEmpty() const { return m_shown.isEmpty(); }
    QString shownText() const;

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;

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

private:
    void schedule();

    QPointer<LogStore> m_log;
    QStringList m_shown; // what the view holds, line by line
    QTimer m_frame;
};
