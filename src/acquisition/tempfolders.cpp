#include "tempfolders.h"

#include "acquisition/folderguard.h"

#include <QDir>
#include <QFile>
#include <QMutex>
#include <QMutexLocker>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace Qt::StringLiterals;

namespace {
QMutex heldMutex;
std::vector<int> held; // guarded by heldMutex

int openFolder(const QString &path)
{
    return ::open(QFile::encodeName(path).constData(),
                  O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// A held folder that has been removed since needs its lock no more.
void releaseRemoved()
{
    std::erase_if(held, [](int fd) {
        struct stat status;
        if (::fstat(fd, &status) == 0 && status.st_nlink > 0)
            return false;
        ::close(fd);
        return true;
    });
}
} // namespace

void holdTemporaryFolder(const QString &path)
{
    const int fd = openFolder(path);
    if (fd < 0)
        return;
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return;
    }
    QMutexLocker locker(&heldMutex);
    releaseRemoved();
    held.push_back(fd);
}

void removeAbandonedTemporaryFolders()
{
    const QDir temp(QDir::tempPath());
    for (const QString &name :
         temp.entryList({u"vantro-*"_s}, QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden)) {
        const QString path = temp.filePath(name);
        const int fd = openFolder(path);
        if (fd < 0)
            continue;
        // Our own folders are held through another open file, so this fails for them too.
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0)
            removeTree(path);
        ::close(fd);
    }
}
