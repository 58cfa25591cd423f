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
bool hasImportableExtension(std::string_view name)
{
    static const std::unordered_set<std::string> extensions = [] {
        std::unordered_set<std::string> set;
        for (const QString &extension : EngineManager::importable())
            set.insert(extension.toStdString());
        return set;
    }();
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

struct Entry
{
    std::string name;
    unsigned char type;
};

// Whether every asset among one folder's entries has its sidecar; adds the folder's
// subfolders to `subfolders` on the way. Looking the sidecars up in the listing,
// rather than asking the file system per asset, keeps the check fast on big trees.
bool folderHasSidecars(const QByteArray &dir, const std::vector<Entry> &entries,
                       std::vector<QByteArray> &subfolders)
{
    std::unordered_map<std::string_view, unsigned char> names;
    std::string sidecar;
    for (const Entry &entry : entries) {
        if (entry.type == DT_DIR || entry.type == DT_UNKNOWN) {
            QByteArray path = childPath(dir, entry.name);
            if (isDirectory(path, entry.type))
                subfolders.push_back(std::move(path));
        }
        if (!hasImportableExtension(entry.name))
            continue;
        if (names.empty()) {
            names.reserve(entries.size());
            for (const Entry &other : entries)
                names.emplace(other.name, other.type);
        }
        sidecar.assign(entry.name).append(".import");
        const auto found = names.find(sidecar);
        if (found == names.end())
            return false;
        // A dangling symbolic link is no sidecar.
        if (found->second != DT_REG && found->second != DT_DIR &&
            !exists(childPath(dir, sidecar), Links::Follow))
            return false;
    }
    return true;
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

const QSet<QString> &importable()
{
    static const QSet<QString> extensions{u"png"_s, u"jpg"_s, u"jpeg"_s, u"svg"_s, u"webp"_s,
                                          u"tga"_s, u"bmp"_s, u"hdr"_s,  u"exr"_s, u"mp3"_s,
                                          u"ogg"_s, u"wav"_s, u"obj"_s,  u"glb"_s, u"gltf"_s,
                                          u"dae"_s, u"fbx"_s, u"ttf"_s,  u"otf"_s};
    return extensions;
}

bool importIsComplete(const QString &root)
{
    const QByteArray top = QFile::encodeName(root);
    if (!exists(childPath(top, ".import"), Links::Follow) &&
        !exists(childPath(top, ".godot"), Links::Follow))
        return false;

    std::vector<QByteArray> pending{top};
    std::vector<Entry> entries;
    bool started = false;
    while (!pending.empty()) {
        const QByteArray dir = std::move(pending.back());
        pending.pop_back();
        DIR *stream = ::opendir(dir.constData());
        if (!stream) {
            if (!started)
                return false;
            continue; // an unreadable subfolder is passed over, not a failure
        }
        started = true;
        entries.clear();
        // The engine never imports a folder that holds a ".gdignore" file, nor
        // anything below it, so no sidecar will ever appear there.
        bool ignored = false;
        while (const dirent *entry = ::readdir(stream)) {
            if (std::strcmp(entry->d_name, ".gdignore") == 0)
                ignored = true;
            else if (entry->d_name[0] != '.') // hidden, and "." and ".."
                entries.push_back({entry->d_name, entry->d_type});
        }
        ::closedir(stream);
        if (!ignored && !folderHasSidecars(dir, entries, pending))
            return false;
    }
    return true;
}

qint64 importedEntryCount(const QString &root)
{
    DIR *stream = ::opendir(childPath(QFile::encodeName(root), ".import").constData());
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
