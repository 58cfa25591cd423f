#pragma once

#include "common/errors.h"

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

/** @brief A child program could not be started. `reason` is the system's own words
 *  ("No such file or directory"), without Qt's prefix; callers put it in a sentence
 *  that names the program. */
class LaunchError : public PlatformError
{
public:
    LaunchError(QString reason, int code)
        : PlatformError(Kind::Launch, reason, code), reason(std::move(reason))
    {}
    QString reason;
};

/** @brief The user-visible description of any error the pipeline may catch. */
QString describeError(const std::exception &error);
