#pragma once

#include <QFile>
#include <QRandomGenerator>
#include <QString>

#include <algorithm>
#include <unistd.h>

#include "report.h"

// One random block repeated: nothing on the way can squeeze the bytes, and making
// the file costs no more than writing it.
inline void makeRandomFile(const QString &path, qint64 bytes)
{
    constexpr qint64 blockBytes = 1024 * 1024;
    QByteArray block(blockBytes, Qt::Uninitialized);
    QRandomGenerator::global()->fillRange(reinterpret_cast<quint32 *>(block.data()),
                                          block.size() / qsizetype(sizeof(quint32)));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        throw Failure{QStringLiteral("cannot create ") + path + QStringLiteral(": ") +
                      file.errorString()};
    for (qint64 left = bytes; left > 0; left -= blockBytes) {
        const qint64 piece = std::min(left, blockBytes);
        if (file.write(block.constData(), piece) != piece)
            throw Failure{QStringLiteral("cannot write ") + path + QStringLiteral(": ") +
                          file.errorString()};
    }
    // On the disk before any round starts: the system writing a gigabyte back in the
    // background would slow whichever side happens to run meanwhile.
    if (!file.flush() || ::fsync(file.handle()) != 0)
        throw Failure{QStringLiteral("cannot write ") + path};
}

/** Throughput in MB/s (decimal) of `bytes` moved in `ns` nanoseconds. */
inline double mbPerSecond(qint64 bytes, qint64 ns)
{
    return double(bytes) / 1e6 / (double(ns) / 1e9);
}
