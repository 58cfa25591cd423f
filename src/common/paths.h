#pragma once

#include <QByteArray>
#include <QString>
#include <string_view>

// Questions about paths, asked in bytes: file names on disk need not be UTF-8, and
// a name that does not decode must still be found, walked and removed.

/** `dir` + "/" + `name`. */
QByteArray childPath(const QByteArray &dir, std::string_view name);

enum class Links { Follow, DoNotFollow };

/** Whether something stands at `path`. Following links, a dangling link is nothing;
 *  not following them, it is something. */
bool exists(const QByteArray &path, Links links);

/** Whether `path` is a folder itself, not a link to one. */
bool isRealFolder(const QByteArray &path);

/** Whether every name below `folder` (links not followed) is valid UTF-8. */
bool hasOnlyUtf8Names(const QString &folder);
