#pragma once

#include <QDir>
#include <QString>

/** @brief Removes a folder and its content on every way out of a scope; errors ignored. */
struct FolderGuard
{
    explicit FolderGuard(QString folder) : path(std::move(folder)) {}
    QString path;
    FolderGuard(const FolderGuard &) = delete;
    FolderGuard &operator=(const FolderGuard &) = delete;
    ~FolderGuard() { QDir(path).removeRecursively(); }
};
