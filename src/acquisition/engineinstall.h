#pragma once

#include "acquisition/enginemanager.h"

#include <QCoroTask>
#include <QString>
#include <optional>

class LogStore;

// Download verification and install of an engine build: the half of the engine
// catalogue that touches the network and the disk.
namespace EngineManager {

/** The lower-cased digest that a sha512sum-style list gives for `zipName`. */
std::optional<QString> checksumFromList(const QString &list, const QString &zipName);

/** Fetches the release's checksum list; throws ProcessFailure when it cannot be
 *  had or names no `spec.zipName`, PlatformError on a transport error. */
QCoro::Task<QString> expectedChecksum(EngineSpec spec, QString endpoint);

/** SHA-512 of a file as 128 lower-case hex digits, read in 1 MiB chunks. Blocking:
 *  call it off the GUI thread. Throws PlatformError when the file cannot be read. */
QString sha512(const QString &path);

/** Unpacks a verified archive into the build's engine folder. The old build stays
 *  in place until the new one has unpacked and shows its executable. */
QCoro::Task<void> install(QString zip, EngineSpec spec, LogStore *log);

} // namespace EngineManager
