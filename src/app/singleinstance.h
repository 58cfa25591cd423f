#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QVariantMap>

/**
 * @brief One launcher per user: the first start owns the session bus name, a
 * second one asks it to come to the front and leaves.
 *
 * The running launcher answers the freedesktop `org.freedesktop.Application`
 * interface at /org/vantro/Vantro3D, so the desktop's own activation reaches it too.
 */
class SingleInstance : public QObject
{
    Q_OBJECT

public:
    static constexpr char busName[] = "org.vantro.Vantro3D";
    static constexpr char objectPath[] = "/org/vantro/Vantro3D";

    enum class Claim {
        First,          // this process owns the name now
        AlreadyRunning, // another launcher owns it and was asked to come forward
        NoBus           // no session bus: nothing to claim
    };

    explicit SingleInstance(QDBusConnection bus = QDBusConnection::sessionBus(),
                            QObject *parent = nullptr);
    ~SingleInstance() override;

    Claim claim();

Q_SIGNALS:
    /** Another start (or the desktop) asked for the window. */
    void activationRequested();

private:
    QDBusConnection m_bus;
    bool m_owner = false;
};
