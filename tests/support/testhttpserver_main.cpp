// vantro-testserver: the loopback test server as a program of its own, serving a
// folder, for benchmarks and manual runs against curl or the launcher.
//
//   vantro-testserver --root DIR [--port N]
//
// Prints "port: N" once it listens and serves until SIGINT or SIGTERM.

#include "testhttpserver.h"

#include <QFileInfo>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <pthread.h>

using namespace Qt::StringLiterals;

int main(int argc, char **argv)
{
    QString root;
    long port = 0;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--root") == 0 && i + 1 < argc) {
            root = QFile::decodeName(argv[++i]);
        } else if (std::strcmp(argv[i], "--port") == 0 && i + 1 < argc) {
            char *end = nullptr;
            port = std::strtol(argv[++i], &end, 10);
            if (*end != '\0' || port < 0 || port > 65535) {
                std::fprintf(stderr, "vantro-testserver: bad port %s\n", argv[i]);
                return 2;
            }
        } else {
            std::fprintf(stderr, "usage: vantro-testserver --root DIR [--port N]\n");
            return 2;
        }
    }
    if (root.isEmpty() || !QFileInfo(root).isDir()) {
        std::fprintf(stderr, "vantro-testserver: --root must name a folder\n");
        return 2;
    }

    // Blocked before the server's threads start, so that they inherit the mask and
    // only sigwait() below takes the signals.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    TestHttpServer server{quint16(port)};
    server.setRoot(QFileInfo(root).absoluteFilePath());
    std::printf("port: %u\n", unsigned(server.port()));
    std::fflush(stdout);

    int received = 0;
    sigwait(&stop, &received);
    return 0;
}
