#pragma once

#include <QByteArrayList>

/**
 * @brief Readies Qt, before the application object exists, to put the windows on a
 * Wayland desktop natively.
 *
 * Qt 6.4 takes its X11 platform unless the session calls itself Wayland (and never
 * on GNOME); on a compositor without XWayland, a kiosk's say, that means no window
 * at all. Wayland comes first here, X11 stays the fallback.
 *
 * Qt 6.4's Wayland text input also reads the first seat's device without checking
 * that there is one: a compositor that offers text input but no seat at all (a
 * headless compositor, a kiosk without a keyboard) crashes on the first text item.
 * Only there the launcher asks for the compose input context, what Qt uses on X11
 * without an input method: with no seat nobody types anyway. Where a seat exists the
 * desktop's input methods stay in use.
 *
 * Whatever the player set (QT_QPA_PLATFORM, QT_IM_MODULE) is left alone.
 */
class NativeDesktop
{
public:
    NativeDesktop();

    /** Takes back what was set, once the application exists, so that the game
     *  starts with the environment the launcher was given. */
    void restoreEnvironment();

private:
    void setUnlessSet(const char *name, const QByteArray &value);

    QByteArrayList m_set;
};

/** How many seats the Wayland compositor the platform would use offers; -1 when
 *  none answers. */
int waylandSeatCount();
