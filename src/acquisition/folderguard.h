#pragma once

#include <QString>

/**
 * @brief Removes `path` and everything below it, whatever the names' encoding, without
 * following symbolic links. A plain file or a link at `path` is removed as well.
 *
 * Does nothing for an empty or relative path, so a path that was never set cannot
 * take the current folder with it. True when nothing is left at `path`.
 */
bool removeTree(const QString &path);

/**
 * @brief Puts `fresh` in place at `target` by renames only: whatever stands at
 * `target` (a folder or anything else) is renamed to `aside` first and removed once
 * `fresh` is in. If the swap fails the old item is renamed back. A leftover at
 * `aside` is removed first. Throws PlatformError naming `what` when it fails.
 */
void replaceByRename(const QString &fresh, const QString &target, const QString &aside,
                     const QString &what);

/** Removes whatever stands at `path` unless it is a real folder (a link to one is
 *  removed too). */
void removeUnlessFolder(const QString &path);

/** Whether every name below `folder` (links not followed) is valid UTF-8. */
bool hasOnlyUtf8Names(const QString &folder);

/** @brief Removes a folder and its content on every way out of a scope; errors ignored. */
struct FolderGuard
{
    explicit FolderGuard(QString folder) : path(std::move(folder)) {}
    QString path;
    FolderGuard(const FolderGuard &) = delete;
    FolderGuard &operator=(const FolderGuard &) = delete;
    ~FolderGuard() { removeTree(path); }
};
