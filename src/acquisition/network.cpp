#include "network.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QNetworkProxyFactory>
#include <QPointer>
#include <QSslCertificate>
#include <QSslError>

#include <algorithm>

using namespace Qt::StringLiterals;

Q_LOGGING_CATEGORY(lcNetwork, "vantro.network")

namespace {
QByteArray variable(const char *lower, const char *upper)
{
    const QByteArray value = qgetenv(lower).trimmed();
    return value.isEmpty() ? qgetenv(upper).trimmed() : value;
}

// One entry of no_proxy, as curl reads it: "*" for every host, a domain with its
// subdomains (a leading "." or "*." changes nothing), an address or a subnet in
// CIDR form; any of them may end in ":port".
bool bypasses(QString entry, const QString &host, int port)
{
    entry = entry.trimmed().toLower();
    if (entry == u"*")
        return true;
    const qsizetype colon = entry.lastIndexOf(u':');
    if (colon > 0 && entry.indexOf(u':') == colon && entry.indexOf(u'/') < 0) {
        if (entry.mid(colon + 1).toInt() != port)
            return false;
        entry.truncate(colon);
    }
    entry.remove(u'[').remove(u']');
    const QHostAddress address(host);
    if (entry.contains(u'/'))
        return !address.isNull() && address.isInSubnet(QHostAddress::parseSubnet(entry));
    if (const QHostAddress listed(entry); !listed.isNull())
        return listed.isEqual(address);
    while (entry.startsWith(u'*') || entry.startsWith(u'.'))
        entry.remove(0, 1);
    if (entry.endsWith(u'.'))
        entry.chop(1);
    QString name = host.toLower();
    if (name.endsWith(u'.'))
        name.chop(1);
    return !entry.isEmpty() && (name == entry || name.endsWith(u'.' + entry));
}

// Qt 6.4 on Debian hands the proxy variables to libproxy 0.4, which goes direct
// without a word for a proxy written without "http://" (the usual way) and for
// all_proxy, aims at port 0 for one written without a port, and ignores
// no_proxy=* as well as ".example.com" for example.com itself. Here they are read
// as curl reads them, except that https falls back to http_proxy as it did under
// Qt; without any of them, the desktop's settings apply as before.
class EnvironmentProxyFactory : public QNetworkProxyFactory
{
public:
    QList<QNetworkProxy> queryProxy(const QNetworkProxyQuery &query) override
    {
        const QString scheme = query.protocolTag().toLower();
        QByteArray value;
        if (scheme == u"https")
            value = variable("https_proxy", "HTTPS_PROXY");
        if (value.isEmpty() && (scheme == u"https" || scheme == u"http"))
            value = variable("http_proxy", "HTTP_PROXY");
        if (value.isEmpty())
            value = variable("all_proxy", "ALL_PROXY");
        if (value.isEmpty())
            return systemProxyForQuery(query);
        const QStringList noProxy = QString::fromLocal8Bit(variable("no_proxy", "NO_PROXY"))
                                        .split(u',', Qt::SkipEmptyParts);
        const int port = query.peerPort() >= 0 ? query.peerPort() : scheme == u"https" ? 443 : 80;
        for (const QString &entry : noProxy) {
            if (bypasses(entry, query.peerHostName(), port))
                return {QNetworkProxy::NoProxy};
        }
        const QString text = QString::fromLocal8Bit(value);
        const QUrl url(text.contains(u"://") ? text : u"http://"_s + text);
        const bool socks = url.scheme().startsWith(u"socks5");
        // Any other scheme is tried as an HTTP proxy: it fails with a word then,
        // where skipping it would go direct in silence.
        return {QNetworkProxy(socks ? QNetworkProxy::Socks5Proxy : QNetworkProxy::HttpProxy,
                              url.host(), quint16(url.port(1080)), url.userName(QUrl::FullyDecoded),
                              url.password(QUrl::FullyDecoded))};
    }
};

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
        QNetworkProxyFactory::setApplicationProxyFactory(new EnvironmentProxyFactory);
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

QCoro::Task<SmallFetch> fetchSmall(QNetworkRequest request, qint64 limit,
                                   std::shared_ptr<FetchHandle> handle)
{
    Q_ASSERT(handle);
    if (handle->wasCancelled())
        throw Cancelled();
    // Deleted later: the abort below may come from inside one of its own signals.
    std::unique_ptr<QNetworkReply, void (*)(QNetworkReply *)> reply(
        sharedNetwork()->get(request), [](QNetworkReply *r) { r->deleteLater(); });
    handle->attach(reply.get());
    // Qt stops reading the socket when its buffer is full, so an endless body costs
    // no more than the bound and the buffer.
    reply->setReadBufferSize(64 * 1024);
    SmallFetch got;
    QNetworkReply *raw = reply.get();
    auto overflow = [raw, &got] {
        got.tooLarge = true;
        QMetaObject::invokeMethod(raw, &QNetworkReply::abort, Qt::QueuedConnection);
    };
    auto take = [raw, &got, limit, overflow] {
        if (got.tooLarge)
            return;
        got.body += raw->read(limit + 1 - got.body.size());
        if (got.body.size() > limit) {
            got.body.truncate(limit);
            overflow();
        }
    };
    QObject::connect(raw, &QNetworkReply::metaDataChanged, raw, [raw, limit, overflow] {
        const QVariant length = raw->header(QNetworkRequest::ContentLengthHeader);
        if (length.isValid() && length.toLongLong() > limit)
            overflow();
    });
    QObject::connect(raw, &QNetworkReply::readyRead, raw, take);
    try {
        co_await finished(raw, handle->scope());
    } catch (...) {
        QObject::disconnect(raw, nullptr, nullptr, nullptr);
        throw;
    }
    QObject::disconnect(raw, nullptr, nullptr, nullptr);
    if (handle->wasCancelled())
        throw Cancelled();
    take();
    got.status = raw->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    // Qt reports its own time-out as a cancel; the player's is handled above.
    got.timedOut = !got.tooLarge && raw->error() == QNetworkReply::OperationCanceledError;
    if (!got.tooLarge && !got.timedOut) {
        got.error = raw->error();
        got.problem = networkProblem(raw);
    }
    co_return got;
}
