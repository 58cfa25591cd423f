#include "testhttpserver.h"

#include "testca.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QHostInfo>

#include <openssl/ssl.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {
// Lets the bytes before a reset reach the client, so that it sees a partial body
// and then the error rather than only the error.
constexpr int graceBeforeResetMs = 100;

// One client connection, plain or TLS; blocking calls that the server's
// destructor wakes by shutting the socket down.
struct Link
{
    int fd;
    SSL *ssl = nullptr;

    qint64 receive(char *data, int size)
    {
        if (ssl)
            return SSL_read(ssl, data, size);
        qint64 n;
        while ((n = ::recv(fd, data, size_t(size), 0)) < 0 && errno == EINTR) {
        }
        return n;
    }
    bool send(const char *data, qint64 size)
    {
        while (size > 0) {
            const int piece = int(std::min<qint64>(size, 1 << 20));
            const qint64 n =
                ssl ? SSL_write(ssl, data, piece) : ::send(fd, data, size_t(piece), MSG_NOSIGNAL);
            if (n < 0 && !ssl && errno == EINTR)
                continue;
            if (n <= 0)
                return false;
            data += n;
            size -= n;
        }
        return true;
    }
    bool send(const QByteArray &bytes) { return send(bytes.constData(), bytes.size()); }
    // Bytes [offset, offset + size) of a file: straight from the page cache when
    // plain, through a buffer for TLS.
    bool sendFile(int file, off_t offset, qint64 size)
    {
        char buffer[64 * 1024];
        while (size > 0) {
            const size_t piece =
                size_t(std::min<qint64>(size, ssl ? qint64(sizeof buffer) : 1 << 30));
            const ssize_t n =
                ssl ? ::pread(file, buffer, piece, offset) : ::sendfile(fd, file, &offset, piece);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0 || (ssl && !send(buffer, n)))
                return false;
            offset += ssl ? n : 0;
            size -= n;
        }
        return true;
    }
    // Reads and drops what the client sends, until it closes.
    void drain()
    {
        char scratch[4096];
        ssize_t n;
        while ((n = ::recv(fd, scratch, sizeof scratch, 0)) > 0 || (n < 0 && errno == EINTR)) {
        }
    }
};
} // namespace

TestHttpServer::TestHttpServer(quint16 port)
{
    start(u"127.0.0.1"_s, port);
}

TestHttpServer::TestHttpServer(Tls tls, const QString &host) : m_tls(tls)
{
    using enum TestCa::Fault;
    if (tls != Tls::None && tls != Tls::Stall) {
        const TestCa::Fault faults[] = {None, None, WrongHost, Expired, UnknownCa};
        m_context = TestCa::serverContext(host, faults[int(tls)]);
    }
    start(host, 0);
}

void TestHttpServer::start(const QString &host, quint16 port)
{
    m_host = host;
    QHostAddress address(host == u"localhost" ? u"127.0.0.1"_s : host);
    for (const QHostAddress &found :
         address.isNull() ? QHostInfo::fromName(host).addresses() : QList<QHostAddress>()) {
        if (address.isNull() && found.protocol() == QAbstractSocket::IPv4Protocol)
            address = found;
    }
    sockaddr_in socketAddress{};
    socketAddress.sin_family = AF_INET;
    socketAddress.sin_addr.s_addr = htonl(address.toIPv4Address());
    socketAddress.sin_port = htons(port);
    socklen_t length = sizeof socketAddress;
    auto *generic = reinterpret_cast<sockaddr *>(&socketAddress);
    m_listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(m_listenFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (address.isNull() || ::bind(m_listenFd, generic, sizeof socketAddress) != 0 ||
        ::listen(m_listenFd, 128) != 0 || ::getsockname(m_listenFd, generic, &length) != 0)
        qFatal("test server: cannot listen on %s:%d: %s", qPrintable(host), port, strerror(errno));
    m_port = ntohs(socketAddress.sin_port);
    m_acceptThread = std::thread([this] { acceptLoop(); });
}

TestHttpServer::~TestHttpServer()
{
    // Once stopping, the accept loop adds no connection.
    std::list<std::unique_ptr<Connection>> connections;
    {
        std::lock_guard locker(m_mutex);
        m_stopping = true;
        for (const auto &connection : m_connections) {
            if (connection->fd >= 0)
                ::shutdown(connection->fd, SHUT_RDWR); // wakes its reads and writes
        }
        connections.swap(m_connections);
    }
    m_stopped.notify_all();
    ::shutdown(m_listenFd, SHUT_RDWR); // wakes accept()
    m_acceptThread.join();
    ::close(m_listenFd);
    for (const auto &connection : connections)
        connection->thread.join();
    SSL_CTX_free(m_context);
}

QUrl TestHttpServer::url(const QString &path) const
{
    QUrl url;
    url.setScheme(m_tls == Tls::None ? u"http"_s : u"https"_s);
    url.setHost(m_host);
    url.setPort(m_port);
    url.setPath(path);
    return url;
}

void TestHttpServer::setRoute(const QString &path, Route route)
{
    std::lock_guard locker(m_mutex);
    m_routes.insert(path, std::move(route));
}

void TestHttpServer::setRoot(const QString &folder)
{
    std::lock_guard locker(m_mutex);
    m_root = folder;
}

QList<QByteArray> TestHttpServer::methods(const QString &path) const
{
    std::lock_guard locker(m_mutex);
    return m_requests.value(path);
}

TestHttpServer::Route TestHttpServer::lookUp(const QString &path) const
{
    std::lock_guard locker(m_mutex);
    if (const auto found = m_routes.constFind(path); found != m_routes.constEnd())
        return *found;
    const QString clean = QDir::cleanPath(path);
    if (!m_root.isEmpty() && clean.startsWith(u'/') && !clean.startsWith(u"/.."_s) &&
        QFileInfo(m_root + clean).isFile())
        return file(m_root + clean);
    return {.status = 404, .body = "Not found: " + path.toUtf8() + '\n'};
}

// Sleeps, unless the server stops first; then the answer is false.
bool TestHttpServer::pause(int ms)
{
    std::unique_lock locker(m_mutex);
    return !m_stopped.wait_for(locker, std::chrono::milliseconds(ms),
                               [this] { return m_stopping; });
}

void TestHttpServer::acceptLoop()
{
    // Inherited by the connection threads: a client that hangs up must end one
    // connection with EPIPE, not the test program.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    for (;;) {
        const int fd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        std::lock_guard locker(m_mutex);
        if (m_stopping) {
            if (fd >= 0)
                ::close(fd);
            return;
        }
        if (fd < 0)
            continue;
        const int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        m_connections.remove_if([](const auto &connection) {
            if (connection->done)
                connection->thread.join(); // it has closed its socket: joins at once
            return connection->done.load();
        });
        auto connection = std::make_unique<Connection>();
        connection->fd = fd;
        Connection *raw = connection.get();
        raw->thread = std::thread([this, raw] { serve(raw); });
        m_connections.push_back(std::move(connection));
    }
}

void TestHttpServer::serve(Connection *connection)
{
    Link link{connection->fd};
    std::unique_ptr<SSL, decltype(&SSL_free)> ssl(nullptr, SSL_free);
    if (m_context) {
        ssl.reset(SSL_new(m_context));
        SSL_set_fd(ssl.get(), link.fd);
        if (SSL_accept(ssl.get()) == 1)
            link.ssl = ssl.get();
    }
    if (m_tls == Tls::Stall)
        link.drain(); // the client's hello gets no answer
    bool reset = false;
    QByteArray buffer;
    char chunk[16 * 1024];
    while (m_tls == Tls::None || link.ssl) {
        qsizetype end;
        qint64 got = 1;
        while ((end = buffer.indexOf("\r\n\r\n")) < 0 && buffer.size() < 65536 &&
               (got = link.receive(chunk, sizeof chunk)) > 0)
            buffer.append(chunk, got);
        const QList<QByteArray> request = buffer.left(buffer.indexOf('\r')).split(' ');
        if (end < 0 || request.size() != 3)
            break;
        const QByteArray head = buffer.left(end).toLower();
        buffer.remove(0, end + 4);
        const QString path = QUrl::fromPercentEncoding(request[1].split('?').first());
        {
            std::lock_guard locker(m_mutex);
            m_requests[path].append(request[0]);
        }
        Route route = lookUp(path);

        int file = -1;
        qint64 size = route.body.size();
        if (!route.filePath.isEmpty()) {
            file = ::open(QFile::encodeName(route.filePath).constData(), O_RDONLY | O_CLOEXEC);
            struct stat info;
            if (file >= 0 && ::fstat(file, &info) == 0) {
                size = info.st_size;
            } else { // a route to a missing file is a broken test: say so loudly
                route.status = 500;
                route.body = "Cannot open " + route.filePath.toUtf8() + '\n';
                size = route.body.size();
            }
        }

        const bool headOnly = request[0] == "HEAD";
        const bool byClose = !route.sendLength && !route.chunked;
        const bool keepAlive = request[2] == "HTTP/1.1" && !head.contains("\nconnection: close");
        QByteArray response = "HTTP/1.1 " + QByteArray::number(route.status) +
                              (route.status < 400 ? " OK" : " Error") + "\r\n";
        if (route.chunked)
            response += "Transfer-Encoding: chunked\r\n";
        else if (route.sendLength)
            response += "Content-Length: " + QByteArray::number(size) + "\r\n";
        if (!route.location.isEmpty())
            response += "Location: " + route.location + "\r\n";
        for (const auto &[name, value] : std::as_const(route.headers))
            response += name + ": " + value + "\r\n";
        if (!keepAlive || byClose)
            response += "Connection: close\r\n";
        bool ok = link.send(response + "\r\n");

        if (ok && !headOnly && route.stall) {
            link.drain();
            ok = false;
        } else if (ok && !headOnly) {
            qint64 limit = size;
            for (const qint64 cut : {route.resetAfterBytes, route.closeAfterBytes})
                if (cut >= 0)
                    limit = std::min(limit, cut);
            const qint64 step = route.dripBytesPerChunk > 0 ? route.dripBytesPerChunk
                                : route.chunked             ? 64 * 1024
                                                            : std::max<qint64>(limit, 1);
            for (qint64 sent = 0; ok && sent < limit; sent += step) {
                const qint64 piece = std::min(step, limit - sent);
                if (route.chunked)
                    ok = link.send(QByteArray::number(piece, 16) + "\r\n");
                ok = ok && (file >= 0 ? link.sendFile(file, sent, piece)
                                      : link.send(route.body.constData() + sent, piece));
                if (route.chunked)
                    ok = ok && link.send("\r\n", 2);
                if (ok && route.dripBytesPerChunk > 0 && sent + piece < limit)
                    ok = pause(route.dripDelayMs);
            }
            if (ok && route.resetAfterBytes >= 0) {
                pause(graceBeforeResetMs);
                reset = true;
                ok = false;
            } else if (route.closeAfterBytes >= 0) {
                ok = false;
            } else if (ok && route.chunked) {
                ok = link.send("0\r\n\r\n");
            }
        }
        if (file >= 0)
            ::close(file);
        if (!ok || !keepAlive || byClose)
            break;
    }

    if (reset) {
        // Linger with a zero time-out turns close() into a reset (RST).
        const linger abort{1, 0};
        ::setsockopt(link.fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    } else {
        // Closing with unread input would send a reset and could cut off the end of
        // a body that the close ends: end our side, then read until the client
        // closes too, for a short while at most.
        if (link.ssl)
            SSL_shutdown(link.ssl);
        ::shutdown(link.fd, SHUT_WR);
        const timeval shortWhile{0, 500000};
        ::setsockopt(link.fd, SOL_SOCKET, SO_RCVTIMEO, &shortWhile, sizeof shortWhile);
        link.drain();
    }
    std::lock_guard locker(m_mutex);
    ::close(link.fd);
    connection->fd = -1;
    connection->done = true;
}
