#pragma once

#include <QNetworkAccessManager>

/**
 * @brief The one network manager for small requests (checksum list, size queries).
 *
 * Lives on the GUI thread and dies with the application. Large downloads make a
 * fresh manager of their own so that nothing of one transfer leaks into the next.
 */
QNetworkAccessManager *sharedNetwork();

/** Sets the proxy policy once per process: the desktop's proxy settings apply. */
void useSystemProxy();

#include <QNetworkReply>
#include <QPointer>
#include <optional>

/** Why a redirect was not followed, as the end of a sentence ("the server …"), or
 *  nothing when `error` is not about redirects. */
std::optional<QString> redirectProblem(QNetworkReply::NetworkError error);

/**
 * @brief A handle on a small request under way, so that a cancel can reach it.
 *
 * GUI thread only. A cancel that comes before the request starts makes it fail at
 * once when it does.
 */
class FetchHandle
{
public:
    void attach(QNetworkReply *reply) { m_reply = reply; }
    void cancel()
    {
        m_cancelled = true;
        if (m_reply)
            m_reply->abort();
    }
    bool wasCancelled() const { return m_cancelled; }

private:
    QPointer<QNetworkReply> m_reply;
    bool m_cancelled = false;
};
