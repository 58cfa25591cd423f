#include "tempfolders.h"

#include "common/errors.h"
#include "common/fileops.h"

#include <QDir>
#include <QFile>
#include <QMutex>
#include <QMutexLocker>
#include <QRegularExpression>
#include <QUuid>

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

void hold(const QString &path)
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
} // namespace

namespace TempFolders {

QString make()
{
    const QString path = QDir::tempPath() + u"/vantro-"_s +
                         QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
    if (!QDir().mkpath(path))
        throw PlatformError(PlatformError::Kind::FileSystem,
                            u"Could not create the temporary folder \u201c"_s + path +
                                u"\u201d."_s);
    hold(path);
    return path;
}

void removeAbandoned()
{
    static const QRegularExpression ours(
        u"^vantro-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$"_s);
    const QDir temp(QDir::tempPath());
    for (const QString &name : temp.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden)) {
        if (!ours.match(name).hasMatch())
            continue;
        const QString path = temp.filePath(name);
        const int fd = openFolder(path); // not through a link
        if (fd < 0)
            continue;
        struct stat status;
        // Our own folders are held through another open file, so the lock fails for
        // them too.
        if (::fstat(fd, &status) == 0 && status.st_uid == ::geteuid() &&
            ::flock(fd, LOCK_EX | LOCK_NB) == 0)
            removeTree(path);
        ::close(fd);
    }
}

} // namespace TempFolders
