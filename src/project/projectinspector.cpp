#include "project/projectinspector.h"

#include "project/charactertext.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QStringDecoder>
#include <QtNumeric>

#include <array>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

QStringView trimmed(QStringView text, bool (*strip)(QChar))
{
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && strip(text[begin]))
        ++begin;
    while (end > begin && strip(text[end - 1]))
        --end;
    return text.sliced(begin, end - begin);
}

bool isQuoteOrSpace(QChar c)
{
    return c == u'"' || c == u' ';
}

// Spaces and tabs of any script, but never a line break.
bool isHorizontalSpace(QChar c)
{
    return c == u'\t' || c.category() == QChar::Separator_Space;
}

// A decimal integer: an optional sign, then ASCII digits only; none on overflow.
std::optional<qint64> parseInteger(QStringView text)
{
    bool negative = false;
    if (!text.isEmpty() && (text[0] == u'+' || text[0] == u'-')) {
        negative = text[0] == u'-';
        text = text.sliced(1);
    }
    if (text.isEmpty())
        return std::nullopt;
    qint64 result = 0;
    for (QChar c : text) {
        if (c.unicode() < u'0' || c.unicode() > u'9')
            return std::nullopt;
        const qint64 digit = c.unicode() - u'0';
        // Building towards the sign keeps the most negative value within range.
        const bool overflow = qMulOverflow(result, qint64(10), &result) ||
                              (negative ? qSubOverflow(result, digit, &result)
                                        : qAddOverflow(result, digit, &result));
        if (overflow)
            return std::nullopt;
    }
    return result;
}

// Whether an axis value, which the pattern limits to -?[digits.]+, lies below zero;
// none when it is not a number (no digit, more than one point, digits of another
// script).
std::optional<bool> isBelowZero(QStringView text)
{
    const bool negative = text.startsWith(u'-');
    if (negative)
        text = text.sliced(1);
    bool digits = false;
    bool nonZero = false;
    int points = 0;
    for (QChar c : text) {
        if (c == u'.') {
            ++points;
        } else if (c.unicode() >= u'0' && c.unicode() <= u'9') {
            digits = true;
            nonZero = nonZero || c != u'0';
        } else {
            return std::nullopt;
        }
    }
    if (!digits || points > 1)
        return std::nullopt;
    return negative && nonZero; // -0.0 is not below zero
}

// No project file, README or licence comes near this; a bigger one is not read.
constexpr qint64 kMaxTextBytes = 4 * 1024 * 1024;

// The file as UTF-8 text, or none when it cannot be read, is not valid UTF-8, is
// larger than kMaxTextBytes or is anything but a regular file: a link (it could
// lead out of the game, to /dev/zero or to a FIFO), a device or a FIFO would let an
// archive make every start of the launcher hang. A byte order mark is dropped.
std::optional<QString> readUtf8(const QString &path)
{
    // Non-blocking, so that opening a FIFO does not wait for a writer.
    const int fd = ::open(QFile::encodeName(path).constData(),
                          O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return std::nullopt;
    const auto closeFile = qScopeGuard([fd] { ::close(fd); });
    struct stat status;
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size > kMaxTextBytes)
        return std::nullopt;
    // The size may change while it is read: never take more than the bound.
    QByteArray bytes(qsizetype(status.st_size) + 1, Qt::Uninitialized);
    qsizetype got = 0;
    while (got < bytes.size()) {
        const ssize_t n = ::read(fd, bytes.data() + got, size_t(bytes.size() - got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return std::nullopt;
        if (n == 0)
            break;
        got += n;
    }
    if (got > status.st_size)
        return std::nullopt; // it grew: not a file to trust
    bytes.truncate(got);
    QStringDecoder decoder(QStringDecoder::Utf8);
    QString text = decoder.decode(bytes);
    if (decoder.hasError())
        return std::nullopt;
    return text;
}

// The README and the licence often sit at the top of the repository, one level
// above a project kept in a subfolder.
std::array<QString, 2> nearFolders(const QString &root)
{
    return {root, QDir::cleanPath(root + u"/.."_s)};
}

QByteArray childPath(const QByteArray &dir, const char *name)
{
    QByteArray path = dir;
    if (!path.endsWith('/'))
        path += '/';
    return path.append(name);
}

// Project files are looked for down to this level below the starting folder, so the
// walk stays short even when the folder holds a large tree.
constexpr int kDeepestLevel = 4;

// Depth first in listing order below `dir`, whose entries lie at `level`; the folder
// that holds the first "project.godot", or none.
std::optional<QByteArray> searchBelow(const QByteArray &dir, int level)
{
    DIR *stream = ::opendir(dir.constData());
    if (!stream)
        return std::nullopt;
    const auto closeStream = qScopeGuard([stream] { ::closedir(stream); });
    while (const dirent *entry = ::readdir(stream)) {
        if (entry->d_name[0] == '.') // hidden, and "." and ".."
            continue;
        if (std::strcmp(entry->d_name, "project.godot") == 0)
            return dir;
        if (level >= kDeepestLevel)
            continue;
        if (entry->d_type != DT_DIR && entry->d_type != DT_UNKNOWN)
            continue; // symbolic links are not followed, not even to folders
        const QByteArray path = childPath(dir, entry->d_name);
        struct stat status;
        if (entry->d_type == DT_UNKNOWN &&
            (::lstat(path.constData(), &status) != 0 || !S_ISDIR(status.st_mode)))
            continue;
        if (auto found = searchBelow(path, level + 1))
            return found;
    }
    return std::nullopt;
}

struct KnownAction
{
    QStringView action;
    QStringView label;
};

// The only actions the launcher lists, in the order it lists them.
constexpr std::array<KnownAction, 6> kKnownActions{{
    {u"ui_up", u"Accelerate"},
    {u"ui_down", u"Brake / reverse"},
    {u"ui_left", u"Steer left"},
    {u"ui_right", u"Steer right"},
    {u"ui_focus_next", u"Change camera"},
    {u"ui_select", u"Select"},
}};

// The text of every action block of the [input] section, each line followed by a
// line feed; a block that appears twice is joined into one.
QHash<QString, QString> inputBlocks(const QString &text)
{
    QHash<QString, QString> blocks;
    bool inInput = false;
    std::optional<QString> current;
    for (QStringView line : CharacterText::splitLines(text, true)) {
        if (CharacterText::startsWith(line, u"[")) {
            inInput = line == u"[input]";
            current.reset();
            continue;
        }
        if (!inInput)
            continue;
        if (CharacterText::endsWith(line, u"={")) {
            current = line.first(CharacterText::indexOf(line, u"=")).toString();
            blocks[*current]; // an action with an empty block still has one
        }
        if (current) {
            blocks[*current].append(line).append(u'\n');
            if (line == u"}")
                current.reset();
        }
    }
    return blocks;
}

// config_version as a number: 4 when it is missing or no integer.
qint64 configVersionOf(const QString &text)
{
    const auto version = ProjectInspector::value(u"config_version"_s, text);
    return (version ? parseInteger(*version) : std::nullopt).value_or(4);
}

// Godot 3's signs of C#: a [mono] section, or a C# project or solution file beside
// project.godot. Only a regular file counts, as for everything read from a game.
bool hasDotNetSigns(const QString &root, const QString &text)
{
    for (QStringView line : CharacterText::splitLines(text, false)) {
        if (line == u"[mono]")
            return true;
    }
    const QByteArray dir = QFile::encodeName(root);
    DIR *stream = ::opendir(dir.constData());
    if (!stream)
        return false;
    const auto closeStream = qScopeGuard([stream] { ::closedir(stream); });
    while (const dirent *entry = ::readdir(stream)) {
        const std::string_view name(entry->d_name);
        if (!name.ends_with(".csproj") && !name.ends_with(".sln"))
            continue;
        struct stat status;
        if (entry->d_type == DT_REG ||
            (entry->d_type == DT_UNKNOWN &&
             ::lstat(childPath(dir, entry->d_name).constData(), &status) == 0 &&
             S_ISREG(status.st_mode)))
            return true;
    }
    return false;
}

// The text of each object of `type` ("InputEventKey", ...) in an action block.
QStringList objectsOf(const QString &block, QStringView type)
{
    const QString opening = type + u',';
    QStringList objects;
    for (const QString &piece : block.split(u"Object("_s)) {
        if (piece.startsWith(opening))
            objects.append(piece);
    }
    return objects;
}

// The key of a Godot 4 key event. Godot 4 writes "keycode", "physical_keycode" and
// "key_label" in every event, 0 where unset, and matches on the first that is set.
std::optional<qint64> godot4Key(const QString &event)
{
    static constexpr std::array<QStringView, 3> fields{u"keycode", u"physical_keycode",
                                                       u"key_label"};
    for (QStringView field : fields) {
        // The quote before the name keeps "physical_keycode" out of "keycode".
        const QList<QStringList> found =
            ProjectInspector::captures(u"\""_s + field + u"\":(\\d+)"_s, event);
        const auto code = found.isEmpty() ? std::nullopt : parseInteger(found.first().value(0));
        if (code.value_or(0) != 0)
            return code;
    }
    return std::nullopt;
}

// Keys first (each name once), then gamepad buttons, then stick directions, each in
// the order of the block.
QStringList inputNames(const QString &block, ProjectInspector::Numbering numbering)
{
    QStringList names;
    const auto addKey = [&](std::optional<qint64> code) {
        const auto name = code ? ProjectInspector::keyName(*code, numbering) : std::nullopt;
        if (name && !names.contains(*name))
            names.append(*name);
    };
    QString buttons = block;
    if (numbering == ProjectInspector::Numbering::Godot4) {
        for (const QString &event : objectsOf(block, u"InputEventKey"))
            addKey(godot4Key(event));
        // A mouse button has a "button_index" too.
        buttons = objectsOf(block, u"InputEventJoypadButton").join(u'\n');
    } else {
        // The quote before "scancode" keeps "physical_scancode" out.
        for (const QStringList &groups :
             ProjectInspector::captures(u"\"scancode\":(\\d+)"_s, block))
            addKey(parseInteger(groups.value(0)));
    }
    for (const QStringList &groups :
         ProjectInspector::captures(u"\"button_index\":(\\d+)"_s, buttons)) {
        if (const auto index = parseInteger(groups.value(0)))
            names.append(u"gamepad "_s + ProjectInspector::buttonName(*index, numbering));
    }
    const QString axisPattern = u"\"axis\":(\\d+),\"axis_value\":(-?[\\d.]+)"_s;
    for (const QStringList &groups : ProjectInspector::captures(axisPattern, block)) {
        if (groups.size() < 2)
            continue;
        const auto axis = parseInteger(groups[0]);
        if (!axis)
            continue;
        // A value that is no number counts as the positive direction.
        const bool below = isBelowZero(groups[1]).value_or(false);
        if (*axis == 0)
            names.append(below ? u"left stick left"_s : u"left stick right"_s);
        else if (*axis == 1)
            names.append(below ? u"left stick up"_s : u"left stick down"_s);
        else
            names.append(u"gamepad axis "_s + QString::number(*axis));
    }
    return names;
}

} // namespace

namespace ProjectInspector {

std::optional<QString> findProjectRoot(const QString &folder)
{
    const QByteArray start = QFile::encodeName(folder);
    struct stat status;
    if (::lstat(childPath(start, "project.godot").constData(), &status) == 0)
        return folder;
    const auto found = searchBelow(start, 1);
    if (!found)
        return std::nullopt;
    return folder + QFile::decodeName(found->sliced(start.size()));
}

ProjectInfo inspect(const QString &root)
{
    const QString text = readUtf8(root + u"/project.godot"_s).value_or(QString());

    ProjectInfo info;
    info.root = root;
    info.configVersion = configVersionOf(text);
    info.name =
        trimmed(value(u"config/name"_s, text).value_or(u"Zorbit"_s), isQuoteOrSpace).toString();
    info.features = value(u"config/features"_s, text).value_or(QString());
    info.mainScene =
        trimmed(value(u"run/main_scene"_s, text).value_or(QString()), isQuoteOrSpace).toString();
    info.hasSubmodules = QFileInfo::exists(root + u"/.gitmodules"_s);
    info.dotNet = hasDotNetSigns(root, text);
    info.licenseName = licenseSummary(root);
    info.oneLiner = firstSentence(readReadme(root));
    info.controls = parseControls(text);
    return info;
}

std::optional<QString> value(const QString &key, const QString &text)
{
    const QString prefix = key + u'=';
    for (QStringView line : CharacterText::splitLines(text, false)) {
        if (CharacterText::startsWith(line, prefix))
            return line.sliced(prefix.size()).toString();
    }
    return std::nullopt;
}

QList<ControlLine> parseControls(const QString &text)
{
    const QHash<QString, QString> blocks = inputBlocks(text);
    const Numbering numbering = configVersionOf(text) < 5 ? Numbering::Godot3 : Numbering::Godot4;
    QList<ControlLine> rows;
    for (const KnownAction &known : kKnownActions) {
        const auto block = blocks.constFind(known.action.toString());
        if (block == blocks.cend())
            continue;
        const QStringList names = inputNames(*block, numbering);
        if (!names.isEmpty())
            rows.append({QUuid::createUuid(), known.label.toString(), names.join(u", "_s)});
    }
    return rows;
}

QList<QStringList> captures(const QString &pattern, const QString &text)
{
    // The patterns are written for ICU, where \d and its kin take their Unicode
    // meaning: a digit of another script then ends up in the group and fails the
    // number parse, instead of cutting the match short.
    const QRegularExpression expression(pattern, QRegularExpression::UseUnicodePropertiesOption);
    if (!expression.isValid())
        return {};
    const int groupCount = expression.captureCount();
    QList<QStringList> result;
    for (auto matches = expression.globalMatch(text); matches.hasNext();) {
        const QRegularExpressionMatch match = matches.next();
        QStringList groups;
        for (int group = 1; group <= groupCount; ++group) {
            if (match.hasCaptured(group))
                groups.append(match.captured(group));
        }
        result.append(groups);
    }
    return result;
}

std::optional<QString> keyName(qint64 code, Numbering numbering)
{
    if (code >= 'A' && code <= 'Z')
        return QString(QChar(char16_t(code)));
    if (code == 32)
        return u"Space"_s;
    // A special key is one high bit over the same small number in both generations.
    const qint64 special = qint64(1) << (numbering == Numbering::Godot3 ? 24 : 22);
    if (code < special)
        return std::nullopt;
    switch (code - special) {
    case 0x01:
        return u"Esc"_s;
    case 0x02:
        return u"Tab"_s;
    case 0x05:
        return u"Enter"_s;
    case 0x0F:
        return u"Left arrow"_s;
    case 0x10:
        return u"Up arrow"_s;
    case 0x11:
        return u"Right arrow"_s;
    case 0x12:
        return u"Down arrow"_s;
    default:
        return std::nullopt;
    }
}

QString buttonName(qint64 index, Numbering numbering)
{
    static constexpr std::array<QStringView, 4> faces{u"A", u"B", u"X", u"Y"};
    static constexpr std::array<QStringView, 2> shoulders{u"left shoulder", u"right shoulder"};
    static constexpr std::array<QStringView, 4> dpad{u"D-pad up", u"D-pad down", u"D-pad left",
                                                     u"D-pad right"};
    // Godot 4 numbers buttons as SDL does, with Back, Guide, Start and the stick
    // clicks before the shoulders and the D-pad.
    const qint64 firstShoulder = numbering == Numbering::Godot3 ? 4 : 9;
    const qint64 firstDpad = numbering == Numbering::Godot3 ? 12 : 11;
    if (index >= 0 && index < qint64(faces.size()))
        return faces[size_t(index)].toString();
    if (index >= firstShoulder && index - firstShoulder < qint64(shoulders.size()))
        return shoulders[size_t(index - firstShoulder)].toString();
    if (index >= firstDpad && index - firstDpad < qint64(dpad.size()))
        return dpad[size_t(index - firstDpad)].toString();
    return u"button "_s + QString::number(index);
}

QString readReadme(const QString &root)
{
    static constexpr std::array<QStringView, 4> names{u"README.md", u"readme.md", u"README",
                                                      u"README.txt"};
    for (const QString &folder : nearFolders(root)) {
        for (QStringView name : names) {
            if (auto text = readUtf8(folder + u'/' + name))
                return *text;
        }
    }
    return {};
}

QString firstSentence(const QString &text)
{
    for (QStringView line : CharacterText::splitLines(text, false)) {
        line = trimmed(line, isHorizontalSpace);
        // Headings, badges and list items or rules are not prose.
        if (line.isEmpty() || CharacterText::startsWith(line, u"#") ||
            CharacterText::startsWith(line, u"!") || CharacterText::startsWith(line, u"-"))
            continue;
        const QRegularExpression link(u"\\[([^\\]]*)\\]\\([^)]*\\)"_s,
                                      QRegularExpression::UseUnicodePropertiesOption);
        const QString prose = line.toString().replace(link, u"\\1"_s);
        const qsizetype stop = CharacterText::indexOf(prose, u". ");
        return stop < 0 ? prose : prose.first(stop) + u'.';
    }
    return {};
}

QString licenseSummary(const QString &root)
{
    static constexpr std::array<QStringView, 5> names{u"LICENSE", u"LICENSE.md", u"LICENSE.txt",
                                                      u"COPYING", u"UNLICENSE"};
    struct Phrase
    {
        QStringView phrase;
        QStringView summary;
    };
    static constexpr std::array<Phrase, 4> phrases{{
        {u"free and unencumbered software released into the public domain",
         u"Unlicense (public domain)"},
        {u"permission is hereby granted, free of charge", u"MIT License"},
        {u"apache license", u"Apache License 2.0"},
        {u"gnu general public license", u"GNU GPL"},
    }};

    for (const QString &folder : nearFolders(root)) {
        for (QStringView name : names) {
            const auto text = readUtf8(folder + u'/' + name);
            if (!text)
                continue;
            const QString lower = text->toLower();
            for (const Phrase &known : phrases) {
                if (CharacterText::indexOf(lower, known.phrase) >= 0)
                    return known.summary.toString();
            }
            const QList<QStringView> lines = CharacterText::splitLines(*text, false);
            return u"See "_s + name + u": "_s + (lines.isEmpty() ? QStringView() : lines.first());
        }
    }
    return u"No licence file found in the repository"_s;
}

} // namespace ProjectInspector
