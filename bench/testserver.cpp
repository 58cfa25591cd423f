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

int main(int argc, char **argv)
{
    QString root;
    quint16 port = 0;
    bool ok = true;
    for (int i = 1; ok && i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--root") == 0)
            root = QFileInfo(QFile::decodeName(argv[i + 1])).absoluteFilePath();
        else if (std::strcmp(argv[i], "--port") == 0)
            port = QByteArray(argv[i + 1]).toUShort(&ok);
        else
            ok = false;
    }
    if (!ok || argc % 2 == 0 || !QFileInfo(root).isDir()) {
        std::fprintf(stderr, "usage: vantro-testserver --root DIR [--port N]\n");
        return 2;
    }

    // Blocked before the server's threads start, so that they inherit the mask and
    // only sigwait() below takes the signals.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    TestHttpServer server{port};
    server.setRoot(root);
    std::printf("port: %u\n", unsigned(server.port()));
    std::fflush(stdout);
    int received = 0;
    sigwait(&stop, &received);
    return 0;
}
