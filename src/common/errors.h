#pragma once

#include <QByteArray>
#include <QString>
#include <exception>

/**
 * @brief An error of the platform (process start, network, file system), told in a
 * sentence of ours that keeps the platform's own words.
 */
class PlatformError : public std::exception
{
public:
    enum class Kind { Launch, Network, FileSystem };

    PlatformError(Kind kind, QString description, int code = 0)
        : kind(kind), code(code), m_description(std::move(description)),
          m_utf8(m_description.toUtf8())
    {}
    const char *what() const noexcept override { return m_utf8.constData(); }
    QString description() const { return m_description; }

    Kind kind;
    int code; // QProcess::ProcessError or QNetworkReply::NetworkError, by kind

private:
    QString m_description;
    QByteArray m_utf8;
};

/**
 * @brief The player cancelled, or the owner of the work is going away.
 *
 * Thrown where the request is seen: by a wait that its owner abandoned, by a
 * download or a child that the player's cancel stopped, between steps once a cancel
 * has come. Never a failure: nothing is reported as a problem.
 */
class Cancelled : public std::exception
{
public:
    explicit Cancelled(QString description = QStringLiteral("Cancelled."))
        : m_description(std::move(description)), m_utf8(m_description.toUtf8())
    {}
    const char *what() const noexcept override { return m_utf8.constData(); }
    QString description() const { return m_description; }

private:
    QString m_description;
    QByteArray m_utf8;
};
