#include "testca.h"

#include <QHostAddress>
#include <QSslCertificate>
#include <QSslConfiguration>

#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <memory>

using namespace Qt::StringLiterals;

namespace {
using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

struct Authority
{
    Key key;
    Certificate certificate;
};

Key newKey()
{
    // P-256: a key in well under a millisecond, where RSA would take a while.
    Key key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    if (!key)
        qFatal("test CA: no key");
    return key;
}

// Signs a certificate for `key`; without an issuer, a self-signed authority.
Certificate sign(EVP_PKEY *key, const QByteArray &altNames, const Authority *issuer,
                 long validFromDays, long validToDays)
{
    static std::atomic<long> serial{1};
    Certificate certificate(X509_new(), X509_free);
    X509 *x = certificate.get();
    X509_set_version(x, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x), serial++);
    X509_gmtime_adj(X509_getm_notBefore(x), validFromDays * 86400);
    X509_gmtime_adj(X509_getm_notAfter(x), validToDays * 86400);
    X509_set_pubkey(x, key);
    const QByteArray name =
        issuer ? QByteArray("Vantro test server") : "Vantro test CA " + altNames;
    X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char *>(name.constData()), -1, -1,
                               0);
    X509 *signer = issuer ? issuer->certificate.get() : x;
    X509_set_issuer_name(x, X509_get_subject_name(signer));
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, signer, x, nullptr, nullptr, 0);
    auto add = [&](int nid, const char *value) {
        X509_EXTENSION *extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
        if (!extension || !X509_add_ext(x, extension, -1))
            qFatal("test CA: bad extension %s", value);
        X509_EXTENSION_free(extension);
    };
    if (issuer) {
        add(NID_subject_alt_name, altNames.constData());
    } else {
        add(NID_basic_constraints, "critical,CA:TRUE");
        add(NID_key_usage, "critical,keyCertSign,cRLSign");
    }
    if (!X509_sign(x, issuer ? issuer->key.get() : key, EVP_sha256()))
        qFatal("test CA: cannot sign");
    return certificate;
}

Authority makeAuthority(const char *name)
{
    Key key = newKey();
    Certificate certificate = sign(key.get(), name, nullptr, -1, 2);
    return {std::move(key), std::move(certificate)};
}

const Authority &runAuthority()
{
    static const Authority authority = makeAuthority("of this run");
    return authority;
}
} // namespace

SSL_CTX *TestCa::serverContext(const QString &host, Fault fault)
{
    static const Authority stranger = makeAuthority("nobody trusts");
    const bool address = !QHostAddress(host).isNull();
    const QByteArray altNames = fault == Fault::WrongHost ? QByteArray("DNS:somewhere-else.invalid")
                                : address                 ? QByteArray("IP:" + host.toLatin1())
                                                          : QByteArray("DNS:" + host.toLatin1());
    const bool expired = fault == Fault::Expired;
    Key key = newKey();
    const Certificate certificate =
        sign(key.get(), altNames, fault == Fault::UnknownCa ? &stranger : &runAuthority(),
             expired ? -3 : -1, expired ? -1 : 2);
    SSL_CTX *context = SSL_CTX_new(TLS_server_method());
    if (!context || SSL_CTX_use_certificate(context, certificate.get()) != 1 ||
        SSL_CTX_use_PrivateKey(context, key.get()) != 1)
        qFatal("test CA: no server context");
    return context;
}

void TestCa::trustInThisProcess()
{
    std::unique_ptr<BIO, decltype(&BIO_free)> pem(BIO_new(BIO_s_mem()), BIO_free);
    PEM_write_bio_X509(pem.get(), runAuthority().certificate.get());
    char *data = nullptr;
    const long size = BIO_get_mem_data(pem.get(), &data);
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setCaCertificates({QSslCertificate(QByteArray(data, size))});
    QSslConfiguration::setDefaultConfiguration(configuration);
}
