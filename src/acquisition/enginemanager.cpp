#include "acquisition/enginemanager.h"

#include "common/paths.h"
#include "process/processfailure.h"
#include "project/charactertext.h"
#include "vantroconfig.h"

#include <QDir>
#include <QFile>
#include <QScopeGuard>

#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <unordered_set>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

// A symbolic link to a folder is not a folder here: walks stay inside the tree.
bool isDirectory(const QByteArray &path, unsigned char type)
{
    return type != DT_UNKNOWN ? type == DT_DIR : isRealFolder(path);
}

// Compared as bytes, after lower-casing ASCII only: no other letter lower-cases into
// one of the ASCII letters these extensions are made of.
bool hasImportableExtension(std::string_view name,
                            const std::unordered_set<std::string> &extensions)
{
    const size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0)
        return false;
    std::string extension(name.substr(dot + 1));
    for (char &c : extension) {
        if (c >= 'A' && c <= 'Z')
            c = char(c - 'A' + 'a');
    }
    return extensions.count(extension) > 0;
}

const std::unordered_set<std::string> &importableBytes(qint64 major)
{
    const auto make = [](qint64 m) {
        std::unordered_set<std::string> set;
        for (const QString &extension : EngineManager::importable(m))
            set.insert(extension.toStdString());
        return set;
    };
    static const std::unordered_set<std::string> godot3 = make(3), godot4 = make(4);
    return major >= 4 ? godot4 : godot3;
}

struct Entry
{
    std::string name;
    unsigned char type;
};

// A sidecar is read only this far: the engine writes a few hundred bytes.
constexpr qsizetype sidecarLimit = 64 * 1024;

// The project-relative paths a Godot 3 sidecar says the import made: its "path"
// keys ("path", "path.s3tc", ...) and its "dest_files" list. Only "res://" paths
// count; the rest of the file is the engine's business.
std::vector<std::string> namedImports(const QByteArray &sidecar)
{
    std::vector<std::string> paths;
    const int fd = ::open(sidecar.constData(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return paths;
    std::string text(sidecarLimit, '\0');
    size_t size = 0;
    while (size < text.size()) {
        const ssize_t got = ::read(fd, text.data() + size, text.size() - size);
        if (got <= 0)
            break;
        size += size_t(got);
    }
    ::close(fd);
    text.resize(size);

    std::string_view rest(text);
    while (!rest.empty()) {
        const size_t end = rest.find('\n');
        const std::string_view line = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
        const size_t equals = line.find('=');
        if (equals == std::string_view::npos)
            continue;
        const std::string_view key = line.substr(0, equals);
        if (key != "path" && !key.starts_with("path.") && key != "dest_files")
            continue;
        // Every quoted "res://" string on the line: one for a path, a list for dest_files.
        std::string_view value = line.substr(equals + 1);
        for (size_t open; (open = value.find('"')) != std::string_view::npos;) {
            const size_t close = value.find('"', open + 1);
            if (close == std::string_view::npos)
                break;
            const std::string_view quoted = value.substr(open + 1, close - open - 1);
            if (quoted.starts_with("res://"))
                paths.emplace_back(quoted.substr(6));
            value = value.substr(close + 1);
        }
    }
    return paths;
}

// Whether `relative` names a regular file inside `root`: a name that climbs out with
// "..", or a link, is not the engine's work.
bool importedFileExists(const QByteArray &root, std::string_view relative,
                        const std::unordered_set<std::string> &importFolder)
{
    if (relative.empty() || relative.front() == '/')
        return false;
    constexpr std::string_view prefix = ".import/";
    if (relative.starts_with(prefix) && relative.find('/', prefix.size()) == std::string_view::npos)
        return importFolder.count(std::string(relative.substr(prefix.size()))) > 0;
    for (size_t from = 0;;) {
        const size_t slash = relative.find('/', from);
        if (relative.substr(from, slash - from) == "..")
            return false;
        if (slash == std::string_view::npos)
            break;
        from = slash + 1;
    }
    struct stat status;
    return ::lstat(childPath(root, relative).constData(), &status) == 0 && S_ISREG(status.st_mode);
}

// The regular files directly in root/.import, the folder where Godot 3 puts what it
// imports: listed once, so that a sidecar's names are looked up, not stat'ed.
std::unordered_set<std::string> importFolderFiles(const QByteArray &root)
{
    std::unordered_set<std::string> names;
    const QByteArray folder = childPath(root, ".import");
    DIR *stream = ::opendir(folder.constData());
    if (!stream)
        return names;
    while (const dirent *entry = ::readdir(stream)) {
        if (entry->d_type == DT_REG || (entry->d_type == DT_UNKNOWN && [&] {
                struct stat status;
                return ::lstat(childPath(folder, entry->d_name).constData(), &status) == 0 &&
                       S_ISREG(status.st_mode);
            }()))
            names.emplace(entry->d_name);
    }
    ::closedir(stream);
    return names;
}

struct Walk
{
    QByteArray root;
    qint64 major;
    const std::unordered_set<std::string> &extensions;
    std::unordered_set<std::string> importFolder;
    qsizetype limit;
    QStringList missing;

    bool full() const { return missing.size() >= limit; }

    void lacks(const QByteArray &dir, const std::string &name)
    {
        const QByteArray path = childPath(dir, name);
        missing.append(QFile::decodeName(path.mid(root.size() + 1)));
    }

    // Every asset among one folder's entries that lacks its sidecar, or whose sidecar
    // names imported files that are not there; adds the folder's subfolders to
    // `subfolders` on the way. Looking the sidecars up in the listing, rather than
    // asking the file system per asset, keeps the check fast on big trees.
    void folder(const QByteArray &dir, const std::vector<Entry> &entries,
                std::vector<QByteArray> &subfolders)
    {
        std::unordered_map<std::string_view, unsigned char> names;
        std::string sidecar;
        for (const Entry &entry : entries) {
            if (full())
                return;
            if (entry.type == DT_DIR || entry.type == DT_UNKNOWN) {
                QByteArray path = childPath(dir, entry.name);
                if (isDirectory(path, entry.type))
                    subfolders.push_back(std::move(path));
            }
            if (!hasImportableExtension(entry.name, extensions))
                continue;
            if (names.empty()) {
                names.reserve(entries.size());
                for (const Entry &other : entries)
                    names.emplace(other.name, other.type);
            }
            sidecar.assign(entry.name).append(".import");
            const auto found = names.find(sidecar);
            // A dangling symbolic link is no sidecar.
            if (found == names.end() || (found->second != DT_REG && found->second != DT_DIR &&
                                         !exists(childPath(dir, sidecar), Links::Follow))) {
                lacks(dir, entry.name);
                continue;
            }
            // Godot 3 projects commit their sidecars, so one alone proves nothing.
            if (major < 4) {
                for (const std::string &named : namedImports(childPath(dir, sidecar))) {
                    if (!importedFileExists(root, named, importFolder)) {
                        lacks(dir, entry.name);
                        break;
                    }
                }
            }
        }
    }
};

// The assets below `root` that the import has not prepared, up to `limit`; none when
// the walk cannot start.
std::optional<QStringList> unprepared(const QString &root, qint64 major, qsizetype limit)
{
    const QByteArray top = QFile::encodeName(root);
    Walk walk{top, major, importableBytes(major), {}, limit, {}};
    if (major < 4)
        walk.importFolder = importFolderFiles(top);

    std::vector<QByteArray> pending{top};
    std::vector<Entry> entries;
    bool started = false;
    while (!pending.empty() && !walk.full()) {
        const QByteArray dir = std::move(pending.back());
        pending.pop_back();
        DIR *stream = ::opendir(dir.constData());
        if (!stream) {
            if (!started)
                return std::nullopt;
            continue; // an unreadable subfolder is passed over, not a failure
        }
        entries.clear();
        // The engine never imports a folder that holds a ".gdignore" file, nor one
        // that is a project of its own, nor anything below them, so no sidecar will
        // ever appear there.
        bool ignored = false;
        while (const dirent *entry = ::readdir(stream)) {
            if (std::strcmp(entry->d_name, ".gdignore") == 0 ||
                (started && std::strcmp(entry->d_name, "project.godot") == 0))
                ignored = true;
            else if (entry->d_name[0] != '.') // hidden, and "." and ".."
                entries.push_back({entry->d_name, entry->d_type});
        }
        ::closedir(stream);
        started = true;
        if (!ignored)
            walk.folder(dir, entries, pending);
    }
    return walk.missing;
}

} // namespace

QStringList EngineSpec::importArgs(const QString &project) const
{
    // Godot 3 imports only by opening its editor, which the import step closes itself.
    if (major >= 4)
        return {u"--headless"_s, u"--import"_s, u"--path"_s, project, u"--quit"_s};
    return {u"--editor"_s, u"--path"_s, project};
}

namespace EngineManager {

Platform hostPlatform()
{
#if defined(Q_OS_MACOS)
    return Platform::MacOS;
#elif defined(Q_PROCESSOR_ARM_64)
    return Platform::LinuxArm64;
#elif defined(Q_PROCESSOR_X86_64)
    return Platform::LinuxX86_64;
#else
#error "The engine catalogue knows builds for x86_64 and arm64 processors only"
#endif
}

namespace {

constexpr QStringView kGodot3Version = u"3.5.3-stable";
// The oldest Godot 4 release offered, and the one for a project that names none.
constexpr QStringView kOldestGodot4Minor = u"3";

bool isAsciiDigit(QChar c)
{
    return c >= u'0' && c <= u'9';
}

// A Godot 4 minor version the catalogue offers: plain decimal without a leading zero,
// so that a release has one tag, and at most three digits, since no longer number is
// a release and it would only make a long folder name.
bool isOfferedMinor(QStringView minor)
{
    if (minor.isEmpty() || minor.size() > 3 || minor[0] == u'0')
        return false;
    for (QChar c : minor) {
        if (!isAsciiDigit(c))
            return false;
    }
    return minor.toInt() >= kOldestGodot4Minor.toInt();
}

// The N of the first quoted "4.N" element of a features list that names a release on
// offer. The editor requires its own major.minor version among a project's features
// and saves it that way; a patch version ("4.4.1") appears only when added by hand,
// and then beside it.
std::optional<QStringView> namedGodot4Minor(QStringView features)
{
    const QStringView opening = u"\"4.";
    for (qsizetype at = features.indexOf(opening); at >= 0;
         at = features.indexOf(opening, at + 1)) {
        const qsizetype begin = at + opening.size();
        qsizetype end = begin;
        while (end < features.size() && isAsciiDigit(features[end]))
            ++end;
        const QStringView minor = features.sliced(begin, end - begin);
        if (end < features.size() && features[end] == u'"' && isOfferedMinor(minor))
            return minor;
    }
    return std::nullopt;
}

// Whether spec() may choose a build of this release tag.
bool isCatalogueVersion(QStringView tag)
{
    const QStringView prefix = u"4.";
    const QStringView suffix = u"-stable";
    if (tag == kGodot3Version)
        return true;
    return tag.size() > prefix.size() + suffix.size() && tag.startsWith(prefix) &&
           tag.endsWith(suffix) &&
           isOfferedMinor(tag.sliced(prefix.size(), tag.size() - prefix.size() - suffix.size()));
}

} // namespace

EngineSpec spec(const ProjectInfo &info)
{
    return spec(info, hostPlatform());
}

EngineSpec spec(const ProjectInfo &info, Platform platform)
{
    // Godot 3 names no features: its C# projects are known by the signs they leave.
    if (CharacterText::indexOf(info.features, u"C#") >= 0 ||
        (info.configVersion < 5 && info.dotNet))
        throw ProcessFailure(
            u"This game needs the C# (.NET) Godot build, which this app does not set up."_s);
    // Godot 3 projects say 4 and Godot 4 projects 5; anything unknown reads as a small
    // number and so gets the older engine.
    if (info.configVersion < 5) {
        switch (platform) {
        case Platform::LinuxX86_64:
            return {kGodot3Version.toString(), u"Godot_v3.5.3-stable_x11.64.zip"_s, 3};
        case Platform::LinuxArm64:
            throw ProcessFailure(
                u"This game needs Godot 3, which has no official build for this computer's "
                u"processor (arm64), so this app cannot set it up."_s);
        case Platform::MacOS:
            return {kGodot3Version.toString(), u"Godot_v3.5.3-stable_osx.universal.zip"_s, 3};
        }
    }
    // A project saved by a newer editor often does not open in an older one, so it
    // gets the release it names; every release publishes its archives under the same
    // pattern of names.
    const QString version =
        u"4."_s + namedGodot4Minor(info.features).value_or(kOldestGodot4Minor) + u"-stable"_s;
    const QString archive = u"Godot_v"_s + version;
    switch (platform) {
    case Platform::LinuxX86_64:
        return {version, archive + u"_linux.x86_64.zip"_s, 4};
    case Platform::LinuxArm64:
        return {version, archive + u"_linux.arm64.zip"_s, 4};
    case Platform::MacOS:
        break;
    }
    return {version, archive + u"_macos.universal.zip"_s, 4};
}

QStringList catalogueVersions(const DataLayout &layout)
{
    QStringList versions;
    DIR *stream = ::opendir(QFile::encodeName(layout.engines()).constData());
    if (!stream)
        return versions;
    const auto closeStream = qScopeGuard([stream] { ::closedir(stream); });
    while (const dirent *entry = ::readdir(stream)) {
        const QString name = QFile::decodeName(entry->d_name);
        const qsizetype dot = name.lastIndexOf(u'.');
        for (const QString &tag : {name, dot > 0 ? name.first(dot) : QString()}) {
            if (isCatalogueVersion(tag) && !versions.contains(tag))
                versions.append(tag);
        }
    }
    return versions;
}

std::optional<QString> executable(const DataLayout &layout, const EngineSpec &spec)
{
    // The Linux builds are a single program at the top of the archive.
    return firstExecutable(layout.engine(spec.version));
}

std::optional<QString> firstExecutable(const QString &folder)
{
    // Not sorted: the listing's order decides between several candidates.
    const QByteArray dir = QFile::encodeName(folder);
    DIR *stream = ::opendir(dir.constData());
    if (!stream)
        return std::nullopt;
    const auto closeStream = qScopeGuard([stream] { ::closedir(stream); });
    while (const dirent *entry = ::readdir(stream)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        const QByteArray path = childPath(dir, entry->d_name);
        struct stat status;
        if (::stat(path.constData(), &status) == 0 && S_ISREG(status.st_mode) &&
            ::access(path.constData(), X_OK) == 0)
            return folder + u'/' + QFile::decodeName(entry->d_name);
    }
    return std::nullopt;
}

const QSet<QString> &importable(qint64 major)
{
    // Godot 4 imports fonts; Godot 3 loads them as they are and writes no sidecar, but
    // imports compressed SVG and its own text scenes.
    static const QSet<QString> godot4{u"png"_s, u"jpg"_s, u"jpeg"_s, u"svg"_s, u"webp"_s,
                                      u"tga"_s, u"bmp"_s, u"hdr"_s,  u"exr"_s, u"mp3"_s,
                                      u"ogg"_s, u"wav"_s, u"obj"_s,  u"glb"_s, u"gltf"_s,
                                      u"dae"_s, u"fbx"_s, u"ttf"_s,  u"otf"_s};
    static const QSet<QString> godot3 = [] {
        QSet<QString> set = godot4;
        set.remove(u"ttf"_s);
        set.remove(u"otf"_s);
        set.insert(u"svgz"_s);
        set.insert(u"escn"_s);
        return set;
    }();
    return major >= 4 ? godot4 : godot3;
}

bool importIsComplete(const QString &root, qint64 major)
{
    if (!hasImportFolder(root))
        return false;
    const auto missing = unprepared(root, major, 1);
    return missing && missing->isEmpty();
}

bool hasImportFolder(const QString &root)
{
    const QByteArray top = QFile::encodeName(root);
    return exists(childPath(top, ".import"), Links::Follow) ||
           exists(childPath(top, ".godot"), Links::Follow);
}

std::optional<QStringList> unpreparedAssets(const QString &root, qint64 major, qsizetype limit)
{
    return unprepared(root, major, limit);
}

qint64 importedEntryCount(const QString &root, qint64 major)
{
    const QByteArray folder = major >= 4 ? "/.godot/imported" : "/.import";
    DIR *stream = ::opendir(QByteArray(QFile::encodeName(root) + folder).constData());
    if (!stream)
        return 0;
    qint64 count = 0;
    while (const dirent *entry = ::readdir(stream)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            ++count;
    }
    ::closedir(stream);
    return count;
}

QUrl archiveUrl(const EngineSpec &spec, const QString &endpoint)
{
    return QUrl(endpoint + spec.version + u'/' + spec.zipName);
}

QUrl checksumListUrl(const EngineSpec &spec, const QString &endpoint)
{
    return QUrl(endpoint + spec.version + u"/SHA512-SUMS.txt"_s);
}

QString defaultEndpoint()
{
    return QString::fromUtf8(Vantro::kEngineEndpoint);
}

} // namespace EngineManager
