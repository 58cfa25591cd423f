#pragma once

#include <QString>

/**
 * @brief Marks the temporary folders of this process as in use, so that a later run
 * can tell them from those that a killed run left behind.
 *
 * A folder is in use while this process holds a lock on it; the kernel drops the
 * lock when the process dies, however it dies.
 */
void holdTemporaryFolder(const QString &path);

/** Removes the "vantro-*" folders in the temporary folder that no live process holds. */
void removeAbandonedTemporaryFolders();
