#include "launcherentry.h"

#include "app/appmodel.h"

#include <QDBusMessage>
#include <QVariantMap>
#include <algorithm>
#include <cmath>

using namespace Qt::StringLiterals;

QString LauncherEntry::applicationUri()
{
    return u"application://org.vantro.Vantro3D.desktop"_s;
}

QString LauncherEntry::objectPath()
{
    return u"/org/vantro/Vantro3D/LauncherEntry"_s;
}

LauncherEntry::LauncherEntry(AppModel *model, QDBusConnection bus, QObject *parent)
    : QObject(parent), m_model(model), m_bus(std::move(bus))
{
    connect(model, &AppModel::stateChanged, this, &LauncherEntry::update);
    connect(model, &AppModel::progressChanged, this, &LauncherEntry::update);
    update();
}

LauncherEntry::~LauncherEntry()
{
    if (m_shown >= 0)
        send(-1);
}

void LauncherEntry::update()
{
    if (!m_model)
        return;
    const AppState::Kind kind = m_model->state().kind();
    const bool working = kind == AppState::Downloading || kind == AppState::SettingUp;
    const std::optional<double> progress = m_model->progress();
    // A dock bar is a few dozen pixels wide: whole per cent is all it can show, and
    // rounding keeps a download's thousands of small steps from each crossing the bus.
    int percent = -1;
    if (working && progress && std::isfinite(*progress))
        percent = static_cast<int>(std::lround(std::clamp(*progress, 0.0, 1.0) * 100));
    if (percent != m_shown)
        send(percent);
}

void LauncherEntry::send(int percent)
{
    m_shown = percent;
    // Without a session bus (a bare console, a build machine) there is no dock to tell.
    if (!m_bus.isConnected())
        return;
    QVariantMap properties{{u"progress-visible"_s, percent >= 0}};
    if (percent >= 0)
        properties.insert(u"progress"_s, percent / 100.0);
    QDBusMessage signal = QDBusMessage::createSignal(
        objectPath(), u"com.canonical.Unity.LauncherEntry"_s, u"Update"_s);
    signal << applicationUri() << properties;
    m_bus.send(signal);
}
