// The rules behind what the windows show: which button, which colour, which note.
#include "app/appmodel.h"
#include "app/bytecount.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QPointer>

using namespace Qt::StringLiterals;

namespace {
// Fixed so that they mean the same on a light and a dark palette, and mid-tone
// enough to stay legible on both.
const QString warningColor = u"#e07000"_s;
const QString goodColor = u"#2e9d44"_s;
const QString ellipsis = u"\u2026"_s;
} // namespace

bool AppModel::connectWindowRules()
{
    // Every derived text follows the published fields it reads; one signal keeps
    // the bindings simple, and re-reading a few short strings costs nothing.
    for (auto signal : {&AppModel::stateChanged, &AppModel::progressChanged, &AppModel::infoChanged,
                        &AppModel::downloadSizeTextChanged, &AppModel::savesFolderExistsChanged})
        connect(this, signal, this, &AppModel::windowChanged);
    return true;
}

QString AppModel::stateColor() const
{
    switch (m_state.kind()) {
    case AppState::Needs:
        return warningColor;
    case AppState::Ready:
    case AppState::Playing:
        return goodColor;
    default:
        return {};
    }
}

QString AppModel::actionButton() const
{
    if (isGameRunning())
        return u"stop"_s;
    if (canCancel())
        return u"cancel"_s;
    return u"play"_s;
}

QString AppModel::playTitle() const
{
    const auto kind = m_state.kind();
    return kind == AppState::Ready || kind == AppState::NotDownloaded ? u"Play"_s : u"Try again"_s;
}

QString AppModel::progressStyle() const
{
    if (!canCancel())
        return {};
    return m_progress ? u"bar"_s : u"spinner"_s;
}

QString AppModel::downloadNote() const
{
    if (m_state.kind() != AppState::NotDownloaded)
        return {};
    return u"Downloads the game and the Godot engine once, "_s +
           m_downloadSizeText.value_or(u"a one-time download"_s) + u". Nothing to type."_s;
}

QString AppModel::summaryText() const
{
    if (!m_info)
        return u"A 3D racing game made with Godot. Details appear after the first download."_s;
    return m_info->oneLiner;
}

QString AppModel::licenceLine() const
{
    return m_info ? u"Licence: "_s + m_info->licenseName : QString();
}

QVariantList AppModel::controlRows() const
{
    return m_info ? m_info->controlList() : QVariantList();
}

QString AppModel::savesNote() const
{
    if (m_savesFolderExists)
        return {};
    return u"No save folder yet (it appears under ~/.local/share/godot after the game saves "
           u"something)."_s;
}

QString AppModel::removeQuestion() const
{
    return u"This deletes the downloaded game and engine and frees "_s + m_installedSizeText +
           u". Save files are not touched."_s;
}

QString AppModel::reinstallQuestion() const
{
    return u"This downloads the game and the engine again ("_s + m_installedSizeText +
           u" is installed now)."_s;
}

QString AppModel::aboutLicenceText() const
{
    const QString licence =
        m_info ? m_info->licenseName : u"Unlicense (public domain), per the repository"_s;
    return u"The game \"Zorbit\" is made by orrik (GitHub user). Licence: "_s + licence + u"."_s;
}

QUrl AppModel::repositoryUrl() const
{
    // The repository page is the archive address without its branch-zip tail.
    const QString archive = m_config.gameArchiveUrl;
    const qsizetype tail = archive.indexOf(u"/archive/"_s);
    const QUrl url(tail > 0 ? archive.left(tail) : QString(), QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty())
        return QUrl::fromLocalFile(u"/"_s);
    return url;
}

QString AppModel::repositoryLinkText() const
{
    const QUrl url = repositoryUrl();
    return url.isLocalFile() ? url.toLocalFile() : url.host() + url.path();
}

QString AppModel::basedOnText() const
{
    return u"Based on "_s + repositoryUrl().toString() + u", Unlicense."_s;
}

void AppModel::measureInstalledSize()
{
    const quint64 request = ++m_sizeRequests;
    if (m_installedSizeText != ellipsis) {
        m_installedSizeText = ellipsis;
        Q_EMIT windowChanged();
    }
    QCoro::connect(installedSize(), this, [this, request](qint64 bytes) {
        if (request != m_sizeRequests)
            return;
        m_installedSizeText = formatByteCount(bytes);
        Q_EMIT windowChanged();
    });
}

void AppModel::copyToClipboard(const QString &text)
{
    QClipboard *clipboard = QGuiApplication::clipboard();
    clipboard->clear();
    clipboard->setText(text);
}
