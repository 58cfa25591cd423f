#pragma once

#include "app/appstate.h"

#include <QColor>
#include <QCoroTask>
#include <QObject>
#include <QUrl>
#include <QVariantList>
#include <optional>

class AppModel;

/**
 * @brief What the windows show, derived from the model: which button, which colour,
 * which note, which question.
 *
 * The rules live here so that they are tested in C++ and the views stay bindings and
 * command calls. Each rule is also a pure function of the values it reads.
 */
class ViewRules : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString stateColor READ stateColor NOTIFY changed)
    Q_PROPERTY(QString actionButton READ actionButton NOTIFY changed)
    Q_PROPERTY(QString playTitle READ playTitle NOTIFY changed)
    Q_PROPERTY(QString progressStyle READ progressStyle NOTIFY changed)
    Q_PROPERTY(QString downloadNote READ downloadNote NOTIFY changed)
    Q_PROPERTY(QString updateNote READ updateNote NOTIFY changed)
    Q_PROPERTY(QString updateDetail READ updateDetail NOTIFY changed)
    Q_PROPERTY(QString versionLine READ versionLine NOTIFY changed)
    Q_PROPERTY(QString summaryText READ summaryText NOTIFY changed)
    Q_PROPERTY(QString licenceLine READ licenceLine NOTIFY changed)
    Q_PROPERTY(QVariantList controlRows READ controlRows NOTIFY changed)
    Q_PROPERTY(QString savesNote READ savesNote NOTIFY changed)
    Q_PROPERTY(QString installedSizeText READ installedSizeText NOTIFY changed)
    Q_PROPERTY(QString removeQuestion READ removeQuestion NOTIFY changed)
    Q_PROPERTY(QString reinstallQuestion READ reinstallQuestion NOTIFY changed)
    Q_PROPERTY(QString aboutLicenceText READ aboutLicenceText NOTIFY changed)
    Q_PROPERTY(QUrl repositoryUrl READ repositoryUrl CONSTANT)
    Q_PROPERTY(QString repositoryLinkText READ repositoryLinkText CONSTANT)
    Q_PROPERTY(QString basedOnText READ basedOnText CONSTANT)

public:
    explicit ViewRules(AppModel &model);

    /** The state line's hue (made legible on the window with legible()), or empty for
     *  the palette's text colour. */
    QString stateColor() const { return stateColor(state()); }
    static QString stateColor(AppState::Kind state);
    /** The one action button: "play", "cancel" or "stop". */
    QString actionButton() const { return actionButton(state()); }
    static QString actionButton(AppState::Kind state);
    QString playTitle() const { return playTitle(state()); }
    static QString playTitle(AppState::Kind state);
    /** "spinner", "bar", or empty when no progress is shown. */
    QString progressStyle() const;
    static QString progressStyle(AppState::Kind state, bool hasFraction);
    QString downloadNote() const;
    static QString downloadNote(AppState::Kind state, const std::optional<QString> &size);
    /** Under the state line, while the game can be updated: a newer one exists. */
    QString updateNote() const;
    static QString updateNote(AppState::Kind state, const QString &newer);
    /** Beside "Update the game": which version is installed and which is offered. */
    QString updateDetail() const;
    /** For About: the installed game's version, when known. */
    QString versionLine() const;
    QString summaryText() const;
    QString licenceLine() const;
    QVariantList controlRows() const;
    QString savesNote() const;
    /** The base folder's size for the settings window; "…" until measured. */
    QString installedSizeText() const { return m_installedSizeText; }
    QString removeQuestion() const;
    QString reinstallQuestion() const;
    QString aboutLicenceText() const;
    QUrl repositoryUrl() const { return repositoryUrl(m_archiveUrl); }
    static QUrl repositoryUrl(const QString &archiveUrl);
    QString repositoryLinkText() const;
    QString basedOnText() const;

    /** Shows "…", then the installed size once the folder walk is done; only the
     *  newest of overlapping measurements sets the text. */
    Q_INVOKABLE void measureInstalledSize();
    /** The WCAG 2 contrast ratio of two opaque colours, from 1 to 21. */
    Q_INVOKABLE static double contrast(const QColor &a, const QColor &b);
    /** `color`, as drawn over the opaque `background`, darkened or lightened (away
     *  from the background) just enough to reach `ratio` against it: the colours the
     *  desktop's palette hands over stay, only too faint ones move. */
    Q_INVOKABLE static QColor legible(const QColor &color, const QColor &background, double ratio);
    /** `top`, translucent or not, drawn over the opaque `bottom`. */
    Q_INVOKABLE static QColor over(const QColor &top, const QColor &bottom);

    /** Replaces the clipboard's content with `text` as plain text. */
    Q_INVOKABLE static void copyToClipboard(const QString &text);

Q_SIGNALS:
    void changed();

private:
    AppState::Kind state() const;
    QCoro::Task<void> measure(quint64 request);

    AppModel &m;
    QString m_archiveUrl;
    QString m_installedSizeText;
    quint64 m_sizeRequests = 0;
};
