#pragma once

#include "acquisition/datalayout.h"
#include "project/projectinfo.h"

#include <QSet>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <optional>

/** @brief One official engine build; only EngineManager::spec makes them. */
struct EngineSpec
{
    QString version; // release tag: the release folder online and the build's folder on disk
    QString zipName; // the archive's name online and on disk
    qint64 major = 0;

    /** The engine's arguments (program excluded) that import the project at `project`. */
    QStringList importArgs(const QString &project) const;

    bool operator==(const EngineSpec &) const = default;
};

/**
 * @brief The engine catalogue, where builds live on disk, and the file-based import check.
 *
 * Stateless; everything here only reads the disk, so it may run on any thread.
 */
namespace EngineManager {

enum class Platform { LinuxX86_64, LinuxArm64, MacOS };

/** The platform this launcher was built for. */
Platform hostPlatform();

/** The build for the project on this computer. Throws ProcessFailure when there is none. */
EngineSpec spec(const ProjectInfo &info);

/** The build for the project on `platform`. Throws ProcessFailure when there is none. */
EngineSpec spec(const ProjectInfo &info, Platform platform);

/** The release tags of the catalogue's builds, on any platform, that an entry of the
 *  layout's engine folder is named after: a build, or a name the layout makes from
 *  one (its own plus one extension). The folder decides because a Godot 4 project
 *  may name any release from 4.3 on. */
QStringList catalogueVersions(const DataLayout &layout);

/** The installed build's program, the first executable in its folder; none when the
 *  build is not (fully) installed. */
std::optional<QString> executable(const DataLayout &layout, const EngineSpec &spec);

/** The first executable regular file directly in `folder`, in listing order; none when
 *  there is none or the folder cannot be listed. */
std::optional<QString> firstExecutable(const QString &folder);

/** Lower-case extensions of the source assets that the import step of engine `major`
 *  turns into imported files. */
const QSet<QString> &importable(qint64 major);

/** An import folder exists in `root` and every asset below it has been prepared: it
 *  has its ".import" sidecar and, for Godot 3, every file that sidecar names exists.
 *  What the engine skips is skipped here too: hidden folders, folders that hold a
 *  ".gdignore" file or a project.godot of their own, with everything below them. */
bool importIsComplete(const QString &root, qint64 major);

/** Whether root/.import or root/.godot exists. */
bool hasImportFolder(const QString &root);

/** Up to `limit` assets below `root` (relative paths, in walk order) that the import
 *  has not prepared yet, by the rules of importIsComplete; none when the tree cannot
 *  be walked. */
std::optional<QStringList> unpreparedAssets(const QString &root, qint64 major, qsizetype limit);

/** The number of entries in the folder the engine imports into (root/.import for
 *  Godot 3, root/.godot/imported for Godot 4); 0 when it cannot be listed. */
qint64 importedEntryCount(const QString &root, qint64 major);

/** endpoint + version + "/" + zipName. */
QUrl archiveUrl(const EngineSpec &spec, const QString &endpoint);

/** The release's SHA-512 list, beside the archive. */
QUrl checksumListUrl(const EngineSpec &spec, const QString &endpoint);

/** The configured engine release endpoint (ends in "/"). */
QString defaultEndpoint();

} // namespace EngineManager
