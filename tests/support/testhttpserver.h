#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMetaType>
#include <QPair>
#include <QString>
#include <QUrl>

#include <atomic>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

typedef struct ssl_ctx_st SSL_CTX;

/**
 * @brief A real HTTP/1.1 server on loopback, plain or over TLS, for tests and
 * benchmarks.
 *
 * It serves from threads of its own, one per connection, so a test may block its
 * GUI thread while downloads run. GET and HEAD are answered from the routes, then
 * from the root folder, else with 404; every request is counted first. A route
 * may misbehave as real servers do.
 */
class TestHttpServer
{
public:
    struct Route
    {
        int status = 200;
        QByteArray body{};
        // When set, the body is this file, read at request time (body is ignored).
        QString filePath{};
        // false: no Content-Length; the body ends when the connection closes.
        bool sendLength = true;
        // Transfer-Encoding: chunked, without a Content-Length.
        bool chunked = false;
        QByteArray location{};
        // The body goes out in pieces of this many bytes, with a pause between them.
        int dripBytesPerChunk = 0;
        int dripDelayMs = 0;
        // After this many body bytes the connection is reset (RST). Qt 6.4 may then
        // send the GET again, or take the short body for a whole one: count on
        // hits() >= 1 and compare the bytes with Content-Length.
        qint64 resetAfterBytes = -1;
        // After this many body bytes the connection closes cleanly, as a server's does
        // that dies between two chunks: no last chunk, no reset.
        qint64 closeAfterBytes = -1;
        // The headers, then nothing until the client gives up.
        bool stall = false;
        QList<QPair<QByteArray, QByteArray>> headers{};
    };

    /** How a server meets a TLS client: not at all (plain HTTP), with a certificate
     *  from the test run's CA (TestCa) that verifies or is spoilt, or never
     *  answering its hello. */
    enum class Tls { None, Valid, WrongHost, Expired, UnknownCa, Stall };

    static Route redirect(const QByteArray &to) { return {.status = 302, .location = to}; }
    static Route file(const QString &filePath) { return {.filePath = filePath}; }

    /** Plain HTTP on 127.0.0.1; port 0 picks a free one. */
    explicit TestHttpServer(quint16 port = 0);
    /** Listens on `host`, which url() names: an address on loopback (127.0.0.2 is
     *  as good as 127.0.0.1), "localhost", or another name of this machine. */
    explicit TestHttpServer(Tls tls, const QString &host = QStringLiteral("127.0.0.1"));
    ~TestHttpServer();

    quint16 port() const { return m_port; }
    /** path begins with "/" and is not encoded yet. */
    QUrl url(const QString &path) const;

    // These may be called from any thread, also while requests run.
    void setRoute(const QString &path, Route route);
    void setRoot(const QString &folder);
    // The methods of the requests seen for a decoded path (query left out).
    QList<QByteArray> methods(const QString &path) const;
    int hits(const QString &path) const { return int(methods(path).size()); }

private:
    struct Connection
    {
        std::thread thread;
        int fd = -1; // guarded by m_mutex; -1 once closed
        std::atomic<bool> done{false};
    };

    void start(const QString &host, quint16 port);
    void acceptLoop();
    void serve(Connection *connection);
    Route lookUp(const QString &path) const;
    bool pause(int ms);

    QString m_host;
    quint16 m_port = 0;
    Tls m_tls = Tls::None;
    SSL_CTX *m_context = nullptr;
    int m_listenFd = -1;
    std::thread m_acceptThread;

    mutable std::mutex m_mutex; // guards everything below
    std::condition_variable m_stopped;
    bool m_stopping = false;
    QHash<QString, Route> m_routes;
    QString m_root;
    QHash<QString, QList<QByteArray>> m_requests;
    std::list<std::unique_ptr<Connection>> m_connections;
};

Q_DECLARE_METATYPE(TestHttpServer::Route)
