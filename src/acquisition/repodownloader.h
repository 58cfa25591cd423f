#pragma once

#include "process/processbox.h"

#include <QCoroTask>
#include <QString>
#include <QUrl>
#include <optional>

class LogStore;

/** @brief Unpacking zips and asking a server for a download's size. */
namespace RepoDownloader {

/** Replaces whatever is at `dest` (any kind of item) with the content of `zip`, by
 *  running `unpacker` (bsdtar, which keeps executable bits and symbolic links and
 *  refuses entries that would land outside the destination) in `box`. Throws ProcessFailure when
 * `dest` is empty or relative (nothing is touched), when the unpacker fails or a name in the
 * archive is not UTF-8, PlatformError when `dest` cannot be made or the unpacker cannot start,
 *  Cancelled when the box was stopped. On failure `dest` may hold a partial unpack. */
QCoro::Task<void> unzip(QString zip, QString dest, LogStore *log, std::shared_ptr<ProcessBox> box,
                        QString unpacker);

/** The size the server announces for `url` (HEAD, 15 s), or nothing. Throws only
 *  Cancelled, when `scope` is abandoned. */
QCoro::Task<std::optional<qint64>> remoteSize(QUrl url, TaskScope scope);

} // namespace RepoDownloader
