#pragma once

#include <QList>
#include <QStringView>

/**
 * @brief Text tests by user-perceived characters rather than UTF-16 code units.
 *
 * What the launcher reads from a project is matched character by character: a CR LF
 * pair is one character, so it is never a line feed, and "#" followed by a combining
 * mark is not "#".
 */
namespace CharacterText {

/** Whether `pos` falls between two user-perceived characters of `text`. */
bool isBoundary(QStringView text, qsizetype pos);

/** The first place where `needle` stands in `text` as whole characters, or -1. */
qsizetype indexOf(QStringView text, QStringView needle);

bool startsWith(QStringView text, QStringView prefix);
bool endsWith(QStringView text, QStringView suffix);

/** The lines of `text`, cut at every line feed that is a character of its own; the
 *  line feed of a CR LF pair belongs to the pair, so a CR LF file is one line. */
QList<QStringView> splitLines(QStringView text, bool keepEmpty);

} // namespace CharacterText
