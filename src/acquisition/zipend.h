#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

/** @brief What a zip archive's end-of-central-directory record says about it. */
struct ZipEnd
{
    // Free text; an archive of a git commit carries the commit's id here.
    QByteArray comment;
};

/**
 * @brief Reads the end record of the zip archive at `path`.
 *
 * The record must end the file exactly, and the central directory it points to must
 * lie before it; a download cut anywhere short of its last byte fails both. Every
 * length and offset in the record is checked against the file before it is used,
 * and no more than the record's largest possible size (64 KiB and 22 bytes, 76 more
 * for a zip64 archive) is read. Nothing when the file is not such an archive or
 * cannot be read.
 */
std::optional<ZipEnd> readZipEnd(const QString &path);
