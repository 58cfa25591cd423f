#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QPointer>

class AppModel;

/**
 * @brief Shows a download or setup's progress on the dock icon.
 *
 * Docks (KDE Plasma's task manager, the GNOME dock extensions) listen for the
 * `com.canonical.Unity.LauncherEntry` `Update` signal and draw a progress bar on the
 * launcher whose desktop file it names. While the model downloads or sets up, this
 * publishes its progress; when the work ends or fails, it hides the bar again. An
 * indeterminate step hides it too: a dock has no moving bar, and an empty one that
 * never fills looks stuck.
 */
class LauncherEntry : public QObject
{
    Q_OBJECT

public:
    /** The desktop file the signals name, as docks know the application. */
    static QString applicationUri();
    /** Where the signals come from; docks listen on any path. */
    static QString objectPath();

    explicit LauncherEntry(AppModel *model, QDBusConnection bus = QDBusConnection::sessionBus(),
                           QObject *parent = nullptr);
    /** Hides a bar still shown, so that quitting mid-download leaves no stale one. */
    ~LauncherEntry() override;

private:
    void update();
    void send(int percent);

    QPointer<AppModel> m_model;
    QDBusConnection m_bus;
    // What the dock shows now, in whole per cent; -1 when the bar is hidden.
    int m_shown = -1;
};
