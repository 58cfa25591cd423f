#pragma once

#include <QLoggingCategory>
#include <QNetworkAccessManager>

/**
 * @brief The one network manager for small requests (checksum list, size queries).
 *
 * Lives on the GUI thread and dies with the application. Large downloads make a
 * fresh manager of their own so that nothing of one transfer leaks into the next.
 */
QNetworkAccessManager *sharedNetwork();

/** Sets the proxy policy once per process: the proxy variables (https_proxy,
 *  http_proxy, all_proxy, no_proxy, in either case) as curl reads them, else the
 *  desktop's proxy settings. Loopback always goes direct (Qt's own rule). */
void useSystemProxy();

Q_DECLARE_LOGGING_CATEGORY(lcNetwork)

#include "common/taskscope.h"

#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <memory>
#include <optional>

/** Waits for `reply` to finish, as one of `scope`'s waits. */
QCoro::Task<void> finished(QNetworkReply *reply, TaskScope scope);

/** Why a redirect was not followed, as the end of a sentence ("the server …"), or
 *  nothing when `error` is not about redirects. */
std::optional<QString> redirectProblem(QNetworkReply::NetworkError error);

/** What went wrong with a finished reply, as the end of a sentence ("The download
 *  failed: …"): Qt's own text for a plain transport error, words of ours where
 *  Qt's would mislead or say too little (a certificate that does not verify, a
 *  proxy that refuses, a refused redirect, a body cut short). Nothing when the
 *  transport succeeded. Qt's idle time-out, which it reports as a cancel, is the
 *  caller's to tell. */
std::optional<QString> networkProblem(const QNetworkReply *reply);

class FetchHandle;

/** @brief What a small GET brought: at most its limit of the body, and how it ended. */
struct SmallFetch
{
    QByteArray body;       // no more than the limit
    bool tooLarge = false; // the server announced or sent more than the limit
    int status = 0;        // the HTTP status, 0 when none arrived
    bool timedOut = false; // nothing arrived for the request's transfer time-out
    // The transport's failure, and as the end of a sentence, unless it timed out or
    // the body was too large (which aborts it).
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
    std::optional<QString> problem;
};

/** GETs `request` with the shared manager, keeping at most `limit` bytes of the body:
 *  an endless or huge body is cut off there and costs no more. Throws only Cancelled,
 *  when `handle` was cancelled or its scope abandoned. */
QCoro::Task<SmallFetch> fetchSmall(QNetworkRequest request, qint64 limit,
                                   std::shared_ptr<FetchHandle> handle);

/**
 * @brief A handle on a small request under way, so that a cancel can reach it.
 *
 * GUI thread only. A cancel that comes before the request starts makes it fail at
 * once when it does.
 */
class FetchHandle
{
public:
    explicit FetchHandle(TaskScope scope = {}) : m_scope(std::move(scope)) {}
    const TaskScope &scope() const { return m_scope; }
    void attach(QNetworkReply *reply) { m_reply = reply; }
    void cancel()
    {
        m_cancelled = true;
        if (m_reply)
            m_reply->abort();
    }
    bool wasCancelled() const { return m_cancelled; }

private:
    TaskScope m_scope;
    QPointer<QNetworkReply> m_reply;
    bool m_cancelled = false;
};
