#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QPair>
#include <QString>
#include <QUrl>

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

/**
 * @brief A real HTTP/1.1 server on 127.0.0.1 for tests and benchmarks.
 *
 * It listens on a port of its own (random unless one is asked for) and serves from
 * threads of its own, one per connection, so a test may block its GUI thread in
 * QTest::qWait or a coroutine while downloads run. GET and HEAD are answered from
 * the routes set with setRoute(); a path without a route is looked up under the
 * root folder, if one is set, and is otherwise answered with 404. Every request is
 * counted before it is answered.
 *
 * A route describes one answer, including the ways a real server misbehaves: a
 * slow drip, a reset connection in the middle of the body, a stall after the
 * headers, a body without Content-Length. Files are streamed from disk with
 * sendfile(), never held in memory.
 */
class TestHttpServer
{
public:
    struct Route
    {
        int status = 200;
        QByteArray body;
        // When set, the body is this file, read at request time (body is ignored).
        QString filePath;
        // false: no Content-Length; the body ends when the connection closes.
        bool sendLength = true;
        // The Location header, for redirects.
        QByteArray location;
        // Slow drip: the body goes out in pieces of this many bytes, with a pause
        // between them. 0 sends at full speed.
        int dripBytesPerChunk = 0;
        int dripDelayMs = 0;
        // After this many body bytes the connection is reset (RST, not a clean
        // close). The bytes sent before get about 100 ms to reach the client.
        // Beware: Qt 6.4's QNetworkAccessManager then sometimes sends the GET
        // again, and sometimes reports the short body as a success; it also
        // sometimes repeats a GET whose body the connection's close ended. Count
        // on hits() >= 1 there, and compare the bytes with Content-Length.
        qint64 resetAfterBytes = -1;
        // Send the headers, then nothing, with the connection kept open until the
        // client gives up or the server is destroyed.
        bool stall = false;
        // Extra headers, sent as given after the server's own.
        QList<QPair<QByteArray, QByteArray>> headers;
    };

    static Route redirect(const QByteArray &location, int status = 302);
    static Route file(const QString &filePath);

    // Starts listening on 127.0.0.1; port 0 picks a free one. Aborts the program
    // when the port cannot be had: a test without its server cannot run.
    explicit TestHttpServer(quint16 port = 0);
    // Stops listening, cuts every open connection and waits for its threads.
    ~TestHttpServer();

    TestHttpServer(const TestHttpServer &) = delete;
    TestHttpServer &operator=(const TestHttpServer &) = delete;

    quint16 port() const { return m_port; }
    // http://127.0.0.1:<port><path>; path begins with "/" and is not encoded yet.
    QUrl url(const QString &path) const;

    // All of these may be called from any thread, also while requests run.
    void setRoute(const QString &path, Route route);
    void removeRoute(const QString &path);
    // Paths without a route are served from this folder ("" turns it off).
    void setRoot(const QString &folder);

    // Requests seen for the decoded path (query left out), any status.
    int hits(const QString &path) const;
    // Their methods, in order of arrival.
    QList<QByteArray> methods(const QString &path) const;
    // Connections that are open at the moment.
    int openConnections() const;

private:
    struct Connection
    {
        std::thread thread;
        int fd = -1; // guarded by m_mutex; -1 once the thread has closed it
        std::atomic<bool> done{false};
    };

    void acceptLoop();
    void serve(Connection *connection);
    void closeConnection(Connection *connection, bool reset);
    void reapFinished();
    bool lookUp(const QString &path, Route *route) const;
    bool pause(int ms) const;

    quint16 m_port = 0;
    int m_listenFd = -1;
    int m_wakeFd = -1; // eventfd: readable once the server stops
    std::atomic<bool> m_stopping{false};
    std::thread m_acceptThread;

    mutable std::mutex m_mutex; // guards everything below
    QHash<QString, Route> m_routes;
    QString m_root;
    QHash<QString, QList<QByteArray>> m_requests;
    std::list<std::unique_ptr<Connection>> m_connections;
};
