#include "datafolder.h"

#include "acquisition/enginemanager.h"
#include "acquisition/tempfolders.h"
#include "common/fileops.h"
#include "common/paths.h"
#include "project/projectinspector.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

bool DataFolder::lock()
{
    if (m_lockFd >= 0)
        return true;
    const QByteArray path = QFile::encodeName(m_layout.lock());
    QDir().mkpath(m_layout.base());
    // A few rounds: something else in the lock's place goes (the name is ours, inside
    // our folder), and a lock file replaced between our open and our lock is opened
    // again.
    for (int round = 0; round < 3; ++round) {
        const int fd =
            ::open(path.constData(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
        struct stat held, named;
        if (fd < 0 || ::fstat(fd, &held) != 0 || !S_ISREG(held.st_mode)) {
            const bool inTheWay = fd >= 0 || errno == ELOOP || errno == EISDIR;
            if (fd >= 0)
                ::close(fd);
            if (!inTheWay || !removeTree(m_layout.lock()))
                return true;
            continue;
        }
        if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
            ::close(fd);
            return false;
        }
        if (::lstat(path.constData(), &named) == 0 && named.st_dev == held.st_dev &&
            named.st_ino == held.st_ino) {
            m_lockFd = fd;
            return true;
        }
        ::close(fd);
    }
    return true;
}

void DataFolder::unlock()
{
    if (m_lockFd >= 0) {
        ::close(m_lockFd);
        m_lockFd = -1;
    }
}

void DataFolder::sweep() const
{
    // Below a link the names are not ours: a user's own folder of Godot builds linked
    // in as "Engine" keeps everything in it.
    const bool enginesOurs = isRealFolder(QFile::encodeName(m_layout.engines()));
    const QStringList versions =
        enginesOurs ? EngineManager::catalogueVersions(m_layout) : QStringList();
    for (const QString &path : m_layout.leftovers(versions))
        removeTree(path);
    // A previous copy is kept only until its replacement is complete.
    if (ProjectInspector::findProjectRoot(m_layout.game())) {
        removeTree(m_layout.previousGame());
        removeTree(m_layout.previousMarker());
        removeTree(m_layout.previousGameVersion());
    }
    for (const QString &version : versions) {
        if (EngineManager::firstExecutable(m_layout.engine(version))) {
            removeTree(m_layout.previousEngines());
            break;
        }
    }
    TempFolders::removeAbandoned();
}

void DataFolder::empty() const
{
    const QString removal = m_layout.removal();
    removeTree(removal);
    const bool aside = QDir().mkdir(removal);
    const QByteArray base = QFile::encodeName(m_layout.base());
    const QByteArray lockName = QFile::encodeName(QFileInfo(m_layout.lock()).fileName());
    const QByteArray removalName = QFile::encodeName(QFileInfo(removal).fileName());
    DIR *stream = ::opendir(base.constData());
    if (!stream)
        return;
    std::vector<QByteArray> names;
    while (const dirent *entry = ::readdir(stream)) {
        const QByteArray name(entry->d_name);
        if (name != "." && name != ".." && name != lockName && name != removalName)
            names.push_back(name);
    }
    ::closedir(stream);
    const QByteArray removalPath = QFile::encodeName(removal);
    for (const QByteArray &name : names) {
        const QByteArray from = childPath(base, name.toStdString());
        if (!aside ||
            ::rename(from.constData(), childPath(removalPath, name.toStdString()).constData()) != 0)
            removeTree(QFile::decodeName(from));
    }
    removeTree(removal);
}
