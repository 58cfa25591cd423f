#pragma once

#include <QString>

typedef struct ssl_ctx_st SSL_CTX;

/**
 * @brief A certificate authority made for this test run, and the server certificates
 * it signs.
 *
 * Made in memory, once per test program. Nothing trusts it until the test calls
 * trustInThisProcess(); the product never does.
 */
namespace TestCa {

/** How a server's certificate is wrong, if it is. */
enum class Fault { None, WrongHost, Expired, UnknownCa };

/** A TLS server context whose certificate names `host` (an address or a name),
 *  spoilt by `fault`. The caller frees it with SSL_CTX_free. */
SSL_CTX *serverContext(const QString &host, Fault fault);

/** Makes the run's authority the only one that Qt trusts in this process. */
void trustInThisProcess();

} // namespace TestCa
