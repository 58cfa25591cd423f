#include "fileops.h"

#include "common/errors.h"
#include "common/paths.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstring>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

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

[[noreturn]] void throwRenameError(const QString &what, const QString &target)
{
    throw PlatformError(PlatformError::Kind::FileSystem,
                        u"Could not put "_s + what + u" in place at \u201c"_s + target +
                            u"\u201d: "_s + QString::fromLocal8Bit(strerror(errno)) + u"."_s);
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

void replaceByRename(const QString &fresh, const QString &target, const QString &aside,
                     const QString &what)
{
    const QByteArray freshPath = QFile::encodeName(fresh);
    const QByteArray targetPath = QFile::encodeName(target);
    const QByteArray asidePath = QFile::encodeName(aside);
    if (!removeTree(aside))
        throwRenameError(what, target);
    const bool hadOld = exists(targetPath, Links::DoNotFollow);
    if (hadOld && ::rename(targetPath.constData(), asidePath.constData()) != 0)
        throwRenameError(what, target);
    if (::rename(freshPath.constData(), targetPath.constData()) != 0) {
        const int error = errno;
        if (hadOld)
            ::rename(asidePath.constData(), targetPath.constData());
        errno = error;
        throwRenameError(what, target);
    }
    removeTree(aside);
}

bool setAside(const QString &path, const QString &aside)
{
    const QByteArray from = QFile::encodeName(path);
    if (!exists(from, Links::DoNotFollow) || !removeTree(aside))
        return false;
    return ::rename(from.constData(), QFile::encodeName(aside).constData()) == 0;
}

void removeUnlessFolder(const QString &path)
{
    if (!isRealFolder(QFile::encodeName(path)))
        removeTree(path);
}
