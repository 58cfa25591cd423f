#include "network.h"

#include <QCoreApplication>
#include <QNetworkProxyFactory>
#include <QPointer>
#include <QSslCertificate>
#include <QSslError>

#include <algorithm>

using namespace Qt::StringLiterals;

Q_LOGGING_CATEGORY(lcNetwork, "vantro.network")

namespace {
// Why a certificate did not verify, in words a player can act on; nothing when
// the handshake failed for another reason.
std::optional<QString> certificateProblem(const QNetworkReply *reply)
{
    const QList<QSslCertificate> chain = reply->sslConfiguration().peerCertificateChain();
    if (chain.isEmpty())
        return std::nullopt;
    // Checked again as the handshake checked it: Qt's reply keeps only a text.
    const QList<QSslError> errors = QSslCertificate::verify(chain, reply->url().host());
    auto has = [&errors](std::initializer_list<QSslError::SslError> kinds) {
        return std::any_of(errors.begin(), errors.end(), [kinds](const QSslError &error) {
            return std::find(kinds.begin(), kinds.end(), error.error()) != kinds.end();
        });
    };
    using enum QSslError::SslError;
    if (has({UnableToGetIssuerCertificate, UnableToGetLocalIssuerCertificate,
             UnableToVerifyFirstCertificate, SelfSignedCertificate, SelfSignedCertificateInChain,
             CertificateUntrusted, InvalidCaCertificate}))
        return u"the certificate was not issued by an authority that this computer trusts"_s;
    if (has({CertificateExpired}))
        return u"the certificate has expired"_s;
    if (has({CertificateNotYetValid}))
        return u"the certificate is not valid yet"_s;
    if (has({HostNameMismatch}))
        return u"the certificate is for a different host"_s;
    if (has({CertificateRevoked}))
        return u"the certificate has been revoked"_s;
    if (!errors.isEmpty())
        return errors.first().errorString();
    return std::nullopt;
}

// What a proxy did wrong. Qt 6.4 reports a proxy that refuses as an unknown
// network error, and a proxy's name that does not resolve as the server's.
std::optional<QString> proxyProblem(const QNetworkReply *reply)
{
    const QNetworkProxy proxy =
        QNetworkProxyFactory::proxyForQuery(QNetworkProxyQuery(reply->url())).value(0);
    if (proxy.type() != QNetworkProxy::HttpProxy && proxy.type() != QNetworkProxy::Socks5Proxy)
        return std::nullopt;
    const QString server = u"the proxy server "_s + proxy.hostName();
    const QString withPort = server + u":"_s + QString::number(proxy.port());
    switch (reply->error()) {
    case QNetworkReply::HostNotFoundError:
    case QNetworkReply::ProxyNotFoundError:
        return server + u" was not found"_s;
    case QNetworkReply::ProxyTimeoutError:
        return withPort + u" did not answer in time"_s;
    case QNetworkReply::ProxyAuthenticationRequiredError:
        return withPort + u" asks for a user name and password"_s;
    case QNetworkReply::ProxyConnectionClosedError:
        return withPort + u" closed the connection"_s;
    case QNetworkReply::ProxyConnectionRefusedError:
    case QNetworkReply::UnknownProxyError:
    case QNetworkReply::UnknownNetworkError:
        return withPort + u" refused the connection"_s;
    default:
        return std::nullopt;
    }
}
} // namespace

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

std::optional<QString> networkProblem(const QNetworkReply *reply)
{
    const QNetworkReply::NetworkError error = reply->error();
    if (error == QNetworkReply::NoError)
        return std::nullopt;
    if (const auto problem = redirectProblem(error))
        return problem;
    if (error == QNetworkReply::SslHandshakeFailedError) {
        if (const auto why = certificateProblem(reply))
            return u"the secure connection to "_s + reply->url().host() +
                   u" could not be verified ("_s + *why + u")"_s;
    }
    // The server had begun its answer: Qt says only "Connection closed".
    if (error == QNetworkReply::RemoteHostClosedError &&
        reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid())
        return u"the connection closed before the whole file arrived"_s;
    if (const auto problem = proxyProblem(reply))
        return problem;
    return reply->errorString();
}
