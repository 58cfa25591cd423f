#pragma once

#include "acquisition/network.h"

#include <QCoroTask>
#include <QString>
#include <QUrl>

#include <chrono>
#include <memory>
#include <optional>

class DataLayout;

/**
 * @brief Which game is installed, and which one its host offers now.
 *
 * An installed game is known by the commit its archive was made from: an archive of
 * a git branch carries the commit's id as the zip's comment. An archive without one
 * is known by its own SHA-256, recorded as "sha256:" and the digest; only a commit
 * can be compared with what the host offers.
 */
namespace GameVersion {

/** How the game at `zip` is known; blocking, for a worker thread. Empty when the
 *  file cannot be read. */
QString identify(const QString &zip);
/** The first 7 hex digits of a record: what the player sees. */
QString shortForm(const QString &record);
bool isCommit(const QString &record);

/** The record of the installed game, when there is a valid one. */
std::optional<QString> read(const DataLayout &layout);
/** Replaces the record by a rename, so that a crash leaves the old one or the new. */
bool write(const DataLayout &layout, const QString &record);

/** Where the branch of an archive address can be asked for its commit: the host's
 *  git reference advertisement, and the branch. */
struct Source
{
    QUrl refs;
    QString branch;
};
/** For an address of the form <repository>/archive/[refs/heads/]<branch>.zip. */
std::optional<Source> sourceOf(const QUrl &archive);

/** The commit `refs/heads/<branch>` names in a reference advertisement (git's
 *  smart-HTTP pkt-lines), or nothing when the text is not one or does not name it. */
std::optional<QString> commitIn(QByteArrayView advertisement, const QString &branch);

/** At most this much of an advertisement is read. Branches come first in it. */
inline constexpr qint64 maxAdvertisementBytes = 256 * 1024;

/** Asks the host for the branch's commit. Throws ProcessFailure or PlatformError
 *  with the reason, Cancelled when `handle` is cancelled. */
QCoro::Task<QString> latest(Source source, std::chrono::milliseconds idleTimeout,
                            std::shared_ptr<FetchHandle> handle);

} // namespace GameVersion
