#pragma once

#include "project/projectinfo.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <optional>

/**
 * @brief Reads an unpacked Godot project: its folder, settings, controls, README and
 * licence.
 *
 * Pure functions of the file system and their arguments, safe on any thread. None
 * of them fails: unreadable files (missing, no permission, not UTF-8) count as
 * absent, and so does anything but a regular file of at most a few MiB (a link, a
 * FIFO, a device, a huge file), so an archive cannot make a read hang or leave the
 * game folder. Text is compared by user-perceived characters, so a CR LF pair is one
 * character and never a line break: a file with CR LF endings reads as one line.
 */
namespace ProjectInspector {

/** The folder that holds "project.godot": `folder` itself, else the first match of
 *  a depth-first walk in listing order, down to four levels, skipping hidden entries. */
std::optional<QString> findProjectRoot(const QString &folder);

/** Everything the launcher shows about the project in `root`. */
ProjectInfo inspect(const QString &root);

/** The raw text after "key=" on the first line, anywhere in the file, that starts
 *  with it; section headers play no part. */
std::optional<QString> value(const QString &key, const QString &text);

/** Whose numbers a project file's input events carry. */
enum class Numbering { Godot3, Godot4 };

/** The rows for the six known actions of the file's [input] section, in a fixed order,
 *  read with the numbering of the engine generation its config_version names. */
QList<ControlLine> parseControls(const QString &text);

/** For every match of `pattern` in `text`, the texts of the capture groups 1 to n
 *  that took part in it; empty when the pattern does not compile. */
QList<QStringList> captures(const QString &pattern, const QString &text);

/** The name of a key code (Godot 3's "scancode", Godot 4's "keycode"), or none for a
 *  key the launcher does not name. */
std::optional<QString> keyName(qint64 code, Numbering numbering);

/** The name of a gamepad button index. */
QString buttonName(qint64 index, Numbering numbering);

/** The first readable README of `root`, then of its parent; empty if there is none. */
QString readReadme(const QString &root);

/** The first sentence of the first prose line, links reduced to their text. */
QString firstSentence(const QString &text);

/** A short licence name for the first readable licence file of `root` or its parent,
 *  or a pointer to that file. */
QString licenseSummary(const QString &root);

} // namespace ProjectInspector
