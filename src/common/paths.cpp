#include "paths.h"

#include <QFile>
#include <QStringDecoder>

#include <ftw.h>
#include <sys/stat.h>

QByteArray childPath(const QByteArray &dir, std::string_view name)
{
    QByteArray path = dir;
    if (!path.endsWith('/'))
        path += '/';
    return path.append(name.data(), qsizetype(name.size()));
}

bool exists(const QByteArray &path, Links links)
{
    struct stat status;
    return (links == Links::Follow ? ::stat(path.constData(), &status)
                                   : ::lstat(path.constData(), &status)) == 0;
}

bool isRealFolder(const QByteArray &path)
{
    struct stat status;
    return ::lstat(path.constData(), &status) == 0 && S_ISDIR(status.st_mode);
}

namespace {
// nftw passes no user data: one walk runs on one thread at a time per call, so a
// thread-local flag is enough.
thread_local bool allNamesUtf8 = true;

int checkName(const char *path, const struct stat *, int, struct FTW *walk)
{
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString name = decoder.decode(QByteArrayView(path + walk->base));
    if (decoder.hasError()) {
        allNamesUtf8 = false;
        return 1; // stops the walk
    }
    return 0;
}
} // namespace

bool hasOnlyUtf8Names(const QString &folder)
{
    allNamesUtf8 = true;
    ::nftw(QFile::encodeName(folder).constData(), checkName, 32, FTW_PHYS | FTW_MOUNT);
    return allNamesUtf8;
}
