#pragma once

#include <QString>

// Changes on disk. Every one works on bytes and never follows a link: a link in the
// way is removed or renamed as the link it is, never what it points to.

/**
 * @brief Removes `path` and everything below it. A plain file or a link at `path` is
 * removed as well.
 *
 * Does nothing for an empty or relative path, so a path that was never set cannot
 * take the current folder with it. True when nothing is left at `path`.
 */
bool removeTree(const QString &path);

/**
 * @brief Puts `fresh` in place at `target` by renames only: whatever stands at
 * `target` is renamed to `aside` first and removed once `fresh` is in. If the swap
 * fails the old item is renamed back. A leftover at `aside` is removed first.
 * Throws PlatformError naming `what` when it fails.
 */
void replaceByRename(const QString &fresh, const QString &target, const QString &aside,
                     const QString &what);

/** Renames whatever stands at `path` to `aside`, replacing what was there. True when
 *  something was set aside. */
bool setAside(const QString &path, const QString &aside);

/** Removes whatever stands at `path` unless it is a real folder (a link to one is
 *  removed too). */
void removeUnlessFolder(const QString &path);

/** @brief Removes a folder and its content on every way out of a scope; errors ignored. */
struct FolderGuard
{
    explicit FolderGuard(QString folder) : path(std::move(folder)) {}
    QString path;
    FolderGuard(const FolderGuard &) = delete;
    FolderGuard &operator=(const FolderGuard &) = delete;
    ~FolderGuard() { removeTree(path); }
};
