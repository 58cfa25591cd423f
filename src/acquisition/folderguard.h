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

/** @brief Removes a folder and its content on every way out of a scope; errors ignored. */
struct FolderGuard
{
    explicit FolderGuard(QString folder) : path(std::move(folder)) {}
    QString path;
    FolderGuard(const FolderGuard &) = delete;
    FolderGuard &operator=(const FolderGuard &) = delete;
    ~FolderGuard() { removeTree(path); }
};
