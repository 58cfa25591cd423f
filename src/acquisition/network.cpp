#include "network.h"

#include <QCoreApplication>
#include <QNetworkProxyFactory>
#include <QPointer>

QNetworkAccessManager *sharedNetwork()
{
    static QPointer<QNetworkAccessManager> manager;
    if (!manager) {
        useSystemProxy();
        manager = new QNetworkAccessManager(QCoreApplication::instance());
    }
    return manager;
}

void useSystemProxy()
{
    static const bool once = [] {
        QNetworkProxyFactory::setUseSystemConfiguration(true);
        return true;
    }();
    Q_UNUSED(once);
}

std::optional<QString> redirectProblem(QNetworkReply::NetworkError error)
{
    switch (error) {
    case QNetworkReply::TooManyRedirectsError:
        return QStringLiteral("the server redirected it too many times");
    case QNetworkReply::InsecureRedirectError:
        return QStringLiteral("the server redirected it from a secure (https) address to an "
                              "insecure (http) one, which is refused");
    default:
        return std::nullopt;
    }
}

QCoro::Task<void> finished(QNetworkReply *reply, TaskScope scope)
{
    if (reply->isFinished())
        co_return;
    Wake wake(scope);
    const auto connection =
        QObject::connect(reply, &QNetworkReply::finished, reply, [&wake] { wake.wake(); });
    try {
        co_await wake.wait();
    } catch (...) {
        QObject::disconnect(connection);
        throw;
    }
}
