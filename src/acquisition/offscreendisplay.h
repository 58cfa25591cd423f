#pragma once

#include "common/taskscope.h"
#include "process/runprocess.h"

#include <QCoroTask>
#include <QString>
#include <chrono>
#include <memory>

class ProcessBox;

/**
 * @brief A private X server without a screen (Xvfb), for a program that must open
 * a window nobody should see or type into: the Godot 3 editor during the import.
 *
 * The server is a child like any other, in a ProcessBox of its own: whoever stops
 * the import stops it too, it dies with the launcher, and destroying this object
 * ends it. Clients need its display name and its authority file, a random cookie
 * that no other program on the machine knows.
 */
class OffscreenDisplay
{
public:
    /**
     * Starts `server` with its authority file in `folder` and waits until it accepts
     * clients. None when it could not start or did not say its display within
     * `timeout`, or was stopped meanwhile: the caller then does without. The server's
     * box is put in `box` at once, so that a stop can reach it while it starts.
     * Throws Cancelled when `scope` goes.
     */
    static QCoro::Task<std::unique_ptr<OffscreenDisplay>>
    start(QString server, QString folder, TaskScope scope, std::chrono::milliseconds grace,
          std::chrono::milliseconds timeout, LineSink onLine, std::weak_ptr<ProcessBox> *box);

    ~OffscreenDisplay();
    OffscreenDisplay(const OffscreenDisplay &) = delete;
    OffscreenDisplay &operator=(const OffscreenDisplay &) = delete;

    /** ":N", for DISPLAY. */
    QString display() const { return m_display; }
    /** The authority file, for XAUTHORITY. */
    QString authority() const { return m_authority; }
    const std::shared_ptr<ProcessBox> &box() const { return m_box; }

    struct State;

private:
    OffscreenDisplay() = default;

    QString m_display;
    QString m_authority;
    std::shared_ptr<ProcessBox> m_box;
    std::shared_ptr<State> m_state;
};
