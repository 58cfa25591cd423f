#include "appstate.h"

using namespace Qt::StringLiterals;

QString AppState::title() const
{
    switch (m_kind) {
    case Downloading:
        return u"Downloading: "_s + m_text;
    case SettingUp:
        return u"Setting up: "_s + m_text;
    case Needs:
        return u"Needs something: "_s + m_text;
    case NotDownloaded:
        return u"Not downloaded"_s;
    case Ready:
        return u"Ready"_s;
    case Starting:
        return u"Starting the game\u2026"_s;
    case Playing:
        return u"Playing"_s;
    }
    return {};
}

bool AppState::isBusy() const
{
    return m_kind == Downloading || m_kind == SettingUp || m_kind == Starting || m_kind == Playing;
}
