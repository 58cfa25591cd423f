#include "nativedesktop.h"

#include <wayland-client.h>

namespace {
void countSeat(void *seats, wl_registry *, uint32_t, const char *interface, uint32_t)
{
    if (qstrcmp(interface, wl_seat_interface.name) == 0)
        ++*static_cast<int *>(seats);
}

void ignoreRemoval(void *, wl_registry *, uint32_t) {}

const wl_registry_listener seatCounter{countSeat, ignoreRemoval};
} // namespace

int waylandSeatCount()
{
    // The same display Qt connects to: WAYLAND_DISPLAY, else "wayland-0".
    wl_display *display = wl_display_connect(nullptr);
    if (!display)
        return -1;
    int seats = 0;
    wl_registry *registry = wl_display_get_registry(display);
    wl_registry_add_listener(registry, &seatCounter, &seats);
    // The compositor lists every global before it answers the round trip.
    const bool answered = wl_display_roundtrip(display) >= 0;
    wl_registry_destroy(registry);
    wl_display_disconnect(display);
    return answered ? seats : -1;
}

NativeDesktop::NativeDesktop()
{
    if (!qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") || qgetenv("XDG_SESSION_TYPE") == "wayland")
        setUnlessSet("QT_QPA_PLATFORM", "wayland;xcb");
    if (!qgetenv("QT_QPA_PLATFORM").startsWith("wayland"))
        return;
    // A WAYLAND_SOCKET is a connection only one client can take over: Qt's.
    if (qEnvironmentVariableIsSet("WAYLAND_SOCKET"))
        return;
    if (waylandSeatCount() == 0)
        setUnlessSet("QT_IM_MODULE", "compose");
}

void NativeDesktop::setUnlessSet(const char *name, const QByteArray &value)
{
    if (qEnvironmentVariableIsSet(name))
        return;
    qputenv(name, value);
    m_set << name;
}

void NativeDesktop::restoreEnvironment()
{
    for (const QByteArray &name : std::as_const(m_set))
        qunsetenv(name.constData());
    m_set.clear();
}
