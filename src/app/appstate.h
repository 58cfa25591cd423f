#pragma once

#include <QMetaType>
#include <QObject>
#include <QString>

/**
 * @brief Where the launcher stands, as the status line shows it.
 *
 * Three states carry a text. `Needs` is the failure state: its text is the reason.
 */
class AppState
{
    Q_GADGET
    Q_PROPERTY(Kind kind READ kind CONSTANT)
    Q_PROPERTY(QString text READ text CONSTANT)
    Q_PROPERTY(QString title READ title CONSTANT)
    Q_PROPERTY(bool busy READ isBusy CONSTANT)

public:
    enum Kind { Downloading, SettingUp, Needs, NotDownloaded, Ready, Starting, Playing };
    Q_ENUM(Kind)

    AppState() = default;
    static AppState downloading(QString text) { return {Downloading, std::move(text)}; }
    static AppState settingUp(QString text) { return {SettingUp, std::move(text)}; }
    static AppState needs(QString text) { return {Needs, std::move(text)}; }
    static AppState notDownloaded() { return {NotDownloaded, {}}; }
    static AppState ready() { return {Ready, {}}; }
    static AppState starting() { return {Starting, {}}; }
    static AppState playing() { return {Playing, {}}; }

    Kind kind() const { return m_kind; }
    QString text() const { return m_text; }
    QString title() const;
    /** Work in progress or a running game, which a disk check must never overwrite. */
    bool isBusy() const;

    bool operator==(const AppState &other) const = default;

private:
    AppState(Kind kind, QString text) : m_kind(kind), m_text(std::move(text)) {}

    Kind m_kind = NotDownloaded;
    QString m_text;
};

Q_DECLARE_METATYPE(AppState)
