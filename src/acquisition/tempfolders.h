#pragma once

#include <QString>

/**
 * @brief The launcher's private temporary folders: "vantro-" + an upper-case UUID in
 * the system's temporary folder, one per download.
 *
 * Each is held, with a lock the kernel drops when this process dies however it
 * dies, from its making until it is removed; so a later run can tell the folders of
 * a dead launcher from those of a live one.
 */
namespace TempFolders {

/** Makes and holds a fresh folder; throws PlatformError when it cannot. */
QString make();

/** Removes our folders that no live launcher holds: only names of exactly our
 *  shape, only real folders (never a link) owned by this user. */
void removeAbandoned();

} // namespace TempFolders
