#pragma once

#include <QByteArray>
#include <QString>
#include <exception>

/**
 * @brief A failure told in the launcher's own words.
 *
 * The message is the complete sentence the user reads; callers put the exit status
 * or the cause into it.
 */
class ProcessFailure : public std::exception
{
public:
    explicit ProcessFailure(QString message)
        : message(std::move(message)), m_utf8(this->message.toUtf8())
    {}
    const char *what() const noexcept override { return m_utf8.constData(); }
    QString description() const { return message; }

    QString message;

private:
    QByteArray m_utf8;
};

/**
 * @brief An error of the platform (process start, network, file system), passed on
 * with the platform's own text.
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

/** @brief A child program could not be started; carries QProcess's error text. */
class LaunchError : public PlatformError
{
public:
    LaunchError(QString description, int code)
        : PlatformError(Kind::Launch, std::move(description), code)
    {}
};

/** @brief The user-visible description of any error the pipeline may catch. */
QString describeError(const std::exception &error);
