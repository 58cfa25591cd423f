#pragma once

#include <QCoroTask>
#include <QString>
#include <QUrl>
#include <optional>

class LogStore;

/** @brief Unpacking zips and asking a server for a download's size. */
namespace RepoDownloader {

/** The unpacker; keeps executable bits and symbolic links, refuses entries that
 *  would land outside the destination. */
inline constexpr char unpacker[] = "/usr/bin/bsdtar";

/** Replaces the content of `dest` with the content of `zip`. Throws ProcessFailure
 *  when the unpacker fails, PlatformError when `dest` cannot be made. */
QCoro::Task<void> unzip(QString zip, QString dest, LogStore *log);

/** The size the server announces for `url` (HEAD, 15 s), or nothing. Never throws. */
QCoro::Task<std::optional<qint64>> remoteSize(QUrl url);

} // namespace RepoDownloader
