#include "viewrules.h"

#include "app/appmodel.h"
#include "common/bytecount.h"

#include <QClipboard>
#include <QGuiApplication>
#include <cmath>

using namespace Qt::StringLiterals;

namespace {
// The hues; legible() darkens them on a light window and lightens them on a dark one.
const QString warningColor = u"#e07000"_s;
const QString goodColor = u"#2e9d44"_s;
const QString ellipsis = u"\u2026"_s;
} // namespace

ViewRules::ViewRules(AppModel &model)
    : m(model), m_archiveUrl(model.config().gameArchiveUrl), m_installedSizeText(ellipsis)
{
    // Every derived text follows the published fields it reads; one signal keeps
    // the bindings simple, and re-reading a few short strings costs nothing.
    for (auto signal : {&AppModel::stateChanged, &AppModel::progressChanged, &AppModel::infoChanged,
                        &AppModel::downloadSizeTextChanged, &AppModel::savesFolderExistsChanged,
                        &AppModel::versionsChanged})
        connect(&model, signal, this, &ViewRules::changed);
}

AppState::Kind ViewRules::state() const
{
    return m.state().kind();
}

QString ViewRules::stateColor(AppState::Kind state)
{
    switch (state) {
    case AppState::Needs:
        return warningColor;
    case AppState::Ready:
    case AppState::Playing:
        return goodColor;
    default:
        return {};
    }
}

QString ViewRules::actionButton(AppState::Kind state)
{
    if (state == AppState::Starting || state == AppState::Playing)
        return u"stop"_s;
    if (state == AppState::Downloading || state == AppState::SettingUp)
        return u"cancel"_s;
    return u"play"_s;
}

QString ViewRules::playTitle(AppState::Kind state)
{
    return state == AppState::Ready || state == AppState::NotDownloaded ? u"Play"_s
                                                                        : u"Try again"_s;
}

QString ViewRules::progressStyle() const
{
    return progressStyle(state(), m.progress().has_value());
}

QString ViewRules::progressStyle(AppState::Kind state, bool hasFraction)
{
    if (state != AppState::Downloading && state != AppState::SettingUp)
        return {};
    return hasFraction ? u"bar"_s : u"spinner"_s;
}

QString ViewRules::downloadNote() const
{
    return downloadNote(state(), m.downloadSizeText());
}

QString ViewRules::downloadNote(AppState::Kind state, const std::optional<QString> &size)
{
    if (state != AppState::NotDownloaded)
        return {};
    return u"Downloads the game and the Godot engine once, "_s +
           size.value_or(u"a one-time download"_s) + u". Nothing to type."_s;
}

QString ViewRules::updateNote() const
{
    return updateNote(state(), m.newerVersion());
}

QString ViewRules::updateNote(AppState::Kind state, const QString &newer)
{
    if (newer.isEmpty() || (state != AppState::Ready && state != AppState::Needs))
        return {};
    return u"A newer version of the game is available. Update it in Settings."_s;
}

QString ViewRules::updateDetail() const
{
    if (m.newerVersion().isEmpty())
        return {};
    return u"A newer version is available (installed "_s + m.gameVersion() + u", latest "_s +
           m.newerVersion() + u")."_s;
}

QString ViewRules::versionLine() const
{
    return m.gameVersion().isEmpty() ? QString() : u"Game version: "_s + m.gameVersion();
}

QString ViewRules::summaryText() const
{
    if (!m.info())
        return u"A 3D racing game made with Godot. Details appear after the first download."_s;
    return m.info()->oneLiner;
}

QString ViewRules::licenceLine() const
{
    return m.info() ? u"Licence: "_s + m.info()->licenseName : QString();
}

QVariantList ViewRules::controlRows() const
{
    return m.info() ? m.info()->controlList() : QVariantList();
}

QString ViewRules::savesNote() const
{
    if (m.savesFolderExists())
        return {};
    return u"No save folder yet (it appears under ~/.local/share/godot after the game saves "
           u"something)."_s;
}

QString ViewRules::removeQuestion() const
{
    return u"This deletes the downloaded game and engine and frees "_s + m_installedSizeText +
           u". Save files are not touched."_s;
}

QString ViewRules::reinstallQuestion() const
{
    return u"This downloads the game and the engine again ("_s + m_installedSizeText +
           u" is installed now)."_s;
}

QString ViewRules::aboutLicenceText() const
{
    const QString licence =
        m.info() ? m.info()->licenseName : u"Unlicense (public domain), per the repository"_s;
    return u"The game \"Zorbit\" is made by orrik (GitHub user). Licence: "_s + licence + u"."_s;
}

QUrl ViewRules::repositoryUrl(const QString &archiveUrl)
{
    // The repository page is the archive address without its branch-zip tail.
    const qsizetype tail = archiveUrl.indexOf(u"/archive/"_s);
    const QUrl url(tail > 0 ? archiveUrl.left(tail) : QString(), QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty())
        return QUrl::fromLocalFile(u"/"_s);
    return url;
}

QString ViewRules::repositoryLinkText() const
{
    const QUrl url = repositoryUrl();
    return url.isLocalFile() ? url.toLocalFile() : url.host() + url.path();
}

QString ViewRules::basedOnText() const
{
    return u"Based on "_s + repositoryUrl().toString() + u", Unlicense."_s;
}

void ViewRules::measureInstalledSize()
{
    const quint64 request = ++m_sizeRequests;
    if (m_installedSizeText != ellipsis) {
        m_installedSizeText = ellipsis;
        Q_EMIT changed();
    }
    measure(request);
}

QCoro::Task<void> ViewRules::measure(quint64 request)
{
    try {
        const qint64 bytes = co_await m.installedSize();
        // An older measurement that ends after a newer one began has nothing to say.
        if (request != m_sizeRequests)
            co_return;
        m_installedSizeText = formatByteCount(bytes);
        Q_EMIT changed();
    } catch (const Cancelled &) {
        // The model is going.
    }
}

namespace {
double luminance(const QColor &color)
{
    auto linear = [](double c) {
        return c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
    };
    const QColor rgb = color.toRgb();
    return 0.2126 * linear(rgb.redF()) + 0.7152 * linear(rgb.greenF()) +
           0.0722 * linear(rgb.blueF());
}

QColor mix(const QColor &from, const QColor &to, double t)
{
    // Rounded to what the screen shows, so that the ratio holds for the drawn pixels.
    auto channel = [t](double a, double b) { return qRound((a + (b - a) * t) * 255); };
    return QColor(channel(from.redF(), to.redF()), channel(from.greenF(), to.greenF()),
                  channel(from.blueF(), to.blueF()));
}
} // namespace

double ViewRules::contrast(const QColor &a, const QColor &b)
{
    const double la = luminance(a), lb = luminance(b);
    return (std::max(la, lb) + 0.05) / (std::min(la, lb) + 0.05);
}

QColor ViewRules::legible(const QColor &color, const QColor &background, double ratio)
{
    const QColor drawn = over(color, background);
    if (contrast(drawn, background) >= ratio)
        return drawn;
    const QColor black(Qt::black), white(Qt::white);
    const QColor away = contrast(black, background) >= contrast(white, background) ? black : white;
    // The least move toward black or white that reaches the ratio.
    double low = 0, high = 1;
    for (int i = 0; i < 16; ++i) {
        const double t = (low + high) / 2;
        (contrast(mix(drawn, away, t), background) >= ratio ? high : low) = t;
    }
    return mix(drawn, away, high);
}

QColor ViewRules::over(const QColor &top, const QColor &bottom)
{
    const QColor rgb = top.toRgb();
    return mix(bottom, QColor(rgb.red(), rgb.green(), rgb.blue()), rgb.alphaF());
}

void ViewRules::copyToClipboard(const QString &text)
{
    QClipboard *clipboard = QGuiApplication::clipboard();
    clipboard->clear();
    clipboard->setText(text);
}
