#include "testhttpserver.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {
constexpr qsizetype maxHeaderBytes = 64 * 1024;
// Lets the bytes before a reset reach the client, so that it sees a partial body
// and then the error rather than only the error.
constexpr int graceBeforeResetMs = 100;

QByteArray reasonPhrase(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 201:
        return "Created";
    case 204:
        return "No Content";
    case 206:
        return "Partial Content";
    case 301:
        return "Moved Permanently";
    case 302:
        return "Found";
    case 303:
        return "See Other";
    case 304:
        return "Not Modified";
    case 307:
        return "Temporary Redirect";
    case 308:
        return "Permanent Redirect";
    case 400:
        return "Bad Request";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 410:
        return "Gone";
    case 416:
        return "Range Not Satisfiable";
    case 429:
        return "Too Many Requests";
    case 500:
        return "Internal Server Error";
    case 502:
        return "Bad Gateway";
    case 503:
        return "Service Unavailable";
    default:
        return "Status";
    }
}

// Blocks SIGPIPE in the calling thread (and the threads it starts): a client that
// hangs up must end one connection with EPIPE, not the test program.
void blockSigpipe()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

bool sendAll(int fd, const char *data, qint64 size)
{
    while (size > 0) {
        const ssize_t n = ::send(fd, data, size_t(size), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += n;
        size -= n;
    }
    return true;
}

bool sendFileRange(int socket, int file, off_t *offset, qint64 size)
{
    while (size > 0) {
        const size_t piece = size_t(std::min<qint64>(size, qint64(1) << 30));
        const ssize_t n = ::sendfile(socket, file, offset, piece);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) // 0: the file shrank under us
            return false;
        size -= n;
    }
    return true;
}

struct Request
{
    QByteArray method;
    QString path; // decoded, without the query
    bool keepAlive = true;
    qint64 bodyLength = 0;
};

// Parses the head of one request (everything before the blank line).
bool parseHead(const QByteArray &head, Request *request)
{
    const QList<QByteArray> lines = head.split('\n');
    const QList<QByteArray> first = lines.value(0).trimmed().split(' ');
    if (first.size() != 3 || !first[2].startsWith("HTTP/1."))
        return false;
    request->method = first[0];
    QByteArray target = first[1];
    if (target.startsWith("http://")) { // absolute form, as a proxy would get it
        const qsizetype slash = target.indexOf('/', 7);
        target = slash < 0 ? QByteArray("/") : target.mid(slash);
    }
    const qsizetype query = target.indexOf('?');
    if (query >= 0)
        target.truncate(query);
    request->path = QUrl::fromPercentEncoding(target);
    request->keepAlive = first[2] == "HTTP/1.1";
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const QByteArray &line = lines[i];
        const qsizetype colon = line.indexOf(':');
        if (colon <= 0)
            continue;
        const QByteArray name = line.left(colon).trimmed().toLower();
        const QByteArray value = line.mid(colon + 1).trimmed().toLower();
        if (name == "connection")
            request->keepAlive =
                value.contains("keep-alive") || (request->keepAlive && !value.contains("close"));
        else if (name == "content-length")
            request->bodyLength = value.toLongLong();
    }
    return request->bodyLength >= 0;
}
} // namespace

TestHttpServer::Route TestHttpServer::redirect(const QByteArray &location, int status)
{
    Route route;
    route.status = status;
    route.location = location;
    return route;
}

TestHttpServer::Route TestHttpServer::file(const QString &filePath)
{
    Route route;
    route.filePath = filePath;
    return route;
}

TestHttpServer::TestHttpServer(quint16 port)
{
    m_listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    m_wakeFd = ::eventfd(0, EFD_CLOEXEC);
    if (m_listenFd < 0 || m_wakeFd < 0)
        qFatal("test server: no socket: %s", strerror(errno));
    const int on = 1;
    ::setsockopt(m_listenFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    socklen_t length = sizeof address;
    if (::bind(m_listenFd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(m_listenFd, 128) != 0 ||
        ::getsockname(m_listenFd, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        qFatal("test server: cannot listen on 127.0.0.1:%d: %s", port, strerror(errno));
    m_port = ntohs(address.sin_port);
    m_acceptThread = std::thread([this] { acceptLoop(); });
}

TestHttpServer::~TestHttpServer()
{
    m_stopping = true;
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t written = ::write(m_wakeFd, &one, sizeof one);
    m_acceptThread.join();
    ::close(m_listenFd);

    // Wakes threads blocked in send() or sendfile(); those in poll() see m_wakeFd.
    std::list<std::unique_ptr<Connection>> connections;
    {
        std::lock_guard locker(m_mutex);
        for (const auto &connection : m_connections) {
            if (connection->fd >= 0)
                ::shutdown(connection->fd, SHUT_RDWR);
        }
        connections.swap(m_connections);
    }
    for (const auto &connection : connections)
        connection->thread.join();
    ::close(m_wakeFd);
}

QUrl TestHttpServer::url(const QString &path) const
{
    QUrl url;
    url.setScheme(u"http"_s);
    url.setHost(u"127.0.0.1"_s);
    url.setPort(m_port);
    const qsizetype query = path.indexOf(u'?');
    url.setPath(path.left(query));
    if (query >= 0)
        url.setQuery(path.mid(query + 1));
    return url;
}

void TestHttpServer::setRoute(const QString &path, Route route)
{
    std::lock_guard locker(m_mutex);
    m_routes.insert(path, std::move(route));
}

void TestHttpServer::removeRoute(const QString &path)
{
    std::lock_guard locker(m_mutex);
    m_routes.remove(path);
}

void TestHttpServer::setRoot(const QString &folder)
{
    std::lock_guard locker(m_mutex);
    m_root = folder;
}

int TestHttpServer::hits(const QString &path) const
{
    std::lock_guard locker(m_mutex);
    return int(m_requests.value(path).size());
}

QList<QByteArray> TestHttpServer::methods(const QString &path) const
{
    std::lock_guard locker(m_mutex);
    return m_requests.value(path);
}

int TestHttpServer::openConnections() const
{
    std::lock_guard locker(m_mutex);
    return int(std::count_if(m_connections.begin(), m_connections.end(),
                             [](const auto &connection) { return !connection->done; }));
}

// Finds the answer to a path: its route, else a file under the root.
bool TestHttpServer::lookUp(const QString &path, Route *route) const
{
    std::lock_guard locker(m_mutex);
    const auto found = m_routes.constFind(path);
    if (found != m_routes.constEnd()) {
        *route = *found;
        return true;
    }
    if (m_root.isEmpty())
        return false;
    const QString clean = QDir::cleanPath(path);
    if (!clean.startsWith(u'/') || clean.startsWith(u"/.."_s))
        return false;
    const QString local = m_root + clean;
    if (!QFileInfo(local).isFile())
        return false;
    *route = file(local);
    return true;
}

// Sleeps, unless the server stops first; then the answer is false.
bool TestHttpServer::pause(int ms) const
{
    pollfd wake{m_wakeFd, POLLIN, 0};
    while (::poll(&wake, 1, ms) < 0 && errno == EINTR) {
    }
    return !m_stopping;
}

void TestHttpServer::acceptLoop()
{
    blockSigpipe();
    pollfd fds[2] = {{m_listenFd, POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
    while (!m_stopping) {
        if (::poll(fds, 2, -1) < 0 || !(fds[0].revents & POLLIN))
            continue;
        const int fd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        const int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        reapFinished();
        std::lock_guard locker(m_mutex);
        auto connection = std::make_unique<Connection>();
        connection->fd = fd;
        Connection *raw = connection.get();
        raw->thread = std::thread([this, raw] { serve(raw); });
        m_connections.push_back(std::move(connection));
    }
}

void TestHttpServer::reapFinished()
{
    std::list<std::unique_ptr<Connection>> finished;
    {
        std::lock_guard locker(m_mutex);
        for (auto it = m_connections.begin(); it != m_connections.end();) {
            auto next = std::next(it);
            if ((*it)->done)
                finished.splice(finished.end(), m_connections, it);
            it = next;
        }
    }
    for (const auto &connection : finished)
        connection->thread.join();
}

void TestHttpServer::closeConnection(Connection *connection, bool reset)
{
    const int fd = connection->fd;
    if (reset) {
        // Linger with a zero time-out turns close() into a reset (RST).
        const linger abort{1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    } else {
        // Closing with unread input would send a reset and could cut off the end of
        // a close-delimited body: end our side first and read until the client has
        // closed too, for a short while at most.
        ::shutdown(fd, SHUT_WR);
        pollfd fds[2] = {{fd, POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
        char scratch[4096];
        while (!m_stopping && ::poll(fds, 2, 500) > 0 && !(fds[1].revents & POLLIN) &&
               ::recv(fd, scratch, sizeof scratch, 0) > 0) {
        }
    }
    std::lock_guard locker(m_mutex);
    ::close(fd);
    connection->fd = -1;
}

void TestHttpServer::serve(Connection *connection)
{
    const int fd = connection->fd;
    QByteArray buffer;
    bool reset = false;
    char chunk[16 * 1024];

    // Appends what the client sends next to the buffer; false at end of file or stop.
    auto readMore = [&] {
        pollfd fds[2] = {{fd, POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
        while (!m_stopping) {
            if (::poll(fds, 2, -1) < 0) {
                if (errno == EINTR)
                    continue;
                return false;
            }
            if (m_stopping)
                return false;
            const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return false;
            buffer.append(chunk, n);
            return true;
        }
        return false;
    };

    for (;;) {
        qsizetype end;
        while ((end = buffer.indexOf("\r\n\r\n")) < 0 && buffer.size() < maxHeaderBytes) {
            if (!readMore())
                break;
        }
        if (end < 0)
            break;
        Request request;
        const bool parsed = parseHead(buffer.left(end), &request);
        buffer.remove(0, end + 4);
        // A request body (none of GET and HEAD) is read and dropped.
        while (parsed && buffer.size() < request.bodyLength && readMore()) {
        }
        buffer.remove(0, std::min(buffer.size(), qsizetype(request.bodyLength)));

        Route route;
        if (!parsed) {
            route.status = 400;
            request.keepAlive = false;
        } else {
            {
                std::lock_guard locker(m_mutex);
                m_requests[request.path].append(request.method);
            }
            if (!lookUp(request.path, &route)) {
                route = Route();
                route.status = 404;
                route.body = "Not found: " + request.path.toUtf8() + '\n';
            }
        }

        int file = -1;
        qint64 size = route.body.size();
        if (!route.filePath.isEmpty()) {
            file = ::open(QFile::encodeName(route.filePath).constData(), O_RDONLY | O_CLOEXEC);
            struct stat info;
            if (file >= 0 && ::fstat(file, &info) == 0) {
                size = info.st_size;
            } else {
                // A route to a missing file is a broken test; say so loudly.
                if (file >= 0)
                    ::close(file);
                file = -1;
                const QByteArray missing = route.filePath.toUtf8();
                route = Route();
                route.status = 500;
                route.body = "Cannot open " + missing + '\n';
                size = route.body.size();
            }
        }

        const bool head = request.method == "HEAD";
        // A reset or a stall is not announced: a server that fails mid-answer
        // would not have known it beforehand.
        const bool announcesClose = !request.keepAlive || !route.sendLength;
        const bool closes = announcesClose || route.stall || (route.resetAfterBytes >= 0 && !head);
        QByteArray response = "HTTP/1.1 " + QByteArray::number(route.status) + ' ' +
                              reasonPhrase(route.status) + "\r\nServer: vantro-testserver\r\n";
        if (route.sendLength)
            response += "Content-Length: " + QByteArray::number(size) + "\r\n";
        if (!route.location.isEmpty())
            response += "Location: " + route.location + "\r\n";
        bool hasType = false;
        for (const auto &[name, value] : std::as_const(route.headers)) {
            hasType = hasType || name.compare("content-type", Qt::CaseInsensitive) == 0;
            response += name + ": " + value + "\r\n";
        }
        if (!hasType)
            response += "Content-Type: application/octet-stream\r\n";
        if (announcesClose)
            response += "Connection: close\r\n";
        response += "\r\n";
        // In-memory bodies go out with the headers in one write.
        const bool together = !head && file < 0 && route.dripBytesPerChunk <= 0 &&
                              route.resetAfterBytes < 0 && !route.stall;
        if (together)
            response += route.body;
        bool ok = sendAll(fd, response.constData(), response.size());

        if (ok && !head && !together && route.stall) {
            // Keep the connection until the client hangs up or the server stops.
            while (readMore())
                buffer.clear();
            ok = false;
        } else if (ok && !head && !together) {
            const qint64 limit =
                route.resetAfterBytes >= 0 ? std::min(route.resetAfterBytes, size) : size;
            const qint64 step = route.dripBytesPerChunk > 0 ? route.dripBytesPerChunk : limit;
            off_t offset = 0;
            for (qint64 sent = 0; ok && sent < limit;) {
                const qint64 piece = std::min(step, limit - sent);
                ok = file >= 0 ? sendFileRange(fd, file, &offset, piece)
                               : sendAll(fd, route.body.constData() + sent, piece);
                sent += piece;
                if (ok && route.dripBytesPerChunk > 0 && sent < limit)
                    ok = pause(route.dripDelayMs);
            }
            if (ok && route.resetAfterBytes >= 0) {
                pause(graceBeforeResetMs);
                reset = true;
                ok = false;
            }
        }
        if (file >= 0)
            ::close(file);
        if (!ok || closes)
            break;
    }
    closeConnection(connection, reset);
    connection->done = true;
}
