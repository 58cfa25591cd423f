#include "folderguard.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
int removeEntry(const char *path, const struct stat *, int type, struct FTW *)
{
    // Errors are not fatal: remove what can be removed, the caller checks what is left.
    if (type == FTW_DP)
        ::rmdir(path);
    else
        ::unlink(path);
    return 0;
}
} // namespace

bool removeTree(const QString &path)
{
    if (path.isEmpty() || !QDir::isAbsolutePath(path))
        return false;
    // Bytes all the way: QDir would decode names and give up on those that are not
    // valid UTF-8.
    const QByteArray native = QFile::encodeName(path);
    struct stat status;
    if (::lstat(native.constData(), &status) != 0)
        return errno == ENOENT;
    if (!S_ISDIR(status.st_mode))
        return ::unlink(native.constData()) == 0;
    ::nftw(native.constData(), removeEntry, 32, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
    return ::lstat(native.constData(), &status) != 0 && errno == ENOENT;
}
