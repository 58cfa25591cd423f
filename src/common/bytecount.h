#pragma once

#include <QString>

/**
 * @brief A byte count in the desktop's file-size style: decimal units, "Zero KB",
 * "1 byte", "999 bytes", "950 KB", "12.3 MB", "1.5 GB".
 *
 * KB are whole, MB carry one decimal, GB and larger two; trailing zeros are dropped.
 * Number and unit are joined by a no-break space.
 */
QString formatByteCount(qint64 bytes);
