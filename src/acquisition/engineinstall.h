#pragma once

#include "acquisition/enginemanager.h"
#include "acquisition/network.h"
#include "process/processbox.h"

#include <QCoroTask>
#include <QString>
#include <chrono>
#include <memory>
#include <optional>

class LogStore;

// Download verification and install of an engine build: the half of the engine
// catalogue that touches the network and the disk.
namespace EngineManager {

/** The lower-cased digest that a sha512sum-style list gives for `zipName`. */
std::optional<QString> checksumFromList(const QString &list, const QString &zipName);

/** No real list comes near this; an endless answer stops here. */
inline constexpr qint64 maxChecksumListBytes = 1024 * 1024;

/** Fetches the release's checksum list; throws ProcessFailure when it cannot be
 *  had, is larger than maxChecksumListBytes or names no `spec.zipName`,
 *  PlatformError on a transport error or a stall (nothing for `idleTimeout`: code
 *  TimeoutError), Cancelled after a cancel through `handle`. */
QCoro::Task<QString> expectedChecksum(EngineSpec spec, QString endpoint,
                                      std::chrono::milliseconds idleTimeout,
                                      std::shared_ptr<FetchHandle> handle);

/** SHA-512 of a file as 128 lower-case hex digits, read in 1 MiB chunks. Blocking:
 *  call it off the GUI thread. Throws PlatformError when the file cannot be read. */
QString sha512(const QString &path);

/** Unpacks a verified archive into the build's engine folder. It unpacks beside it;
 *  the old build stays in place until the new one shows its executable, is then set
 *  aside and removed after the swap. The unpacker runs in `box`. */
QCoro::Task<void> install(QString zip, EngineSpec spec, DataLayout layout, LogStore *log,
                          std::shared_ptr<ProcessBox> box, QString unpacker);

} // namespace EngineManager
