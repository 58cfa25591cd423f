#include "project/charactertext.h"

#include <QTextBoundaryFinder>

namespace CharacterText {

bool isBoundary(QStringView text, qsizetype pos)
{
    if (pos <= 0 || pos >= text.size())
        return true;
    // Between two ASCII characters there is always a boundary except inside CR LF;
    // this spares the boundary finder's pass over the whole text in nearly all cases.
    const char16_t before = text[pos - 1].unicode();
    const char16_t after = text[pos].unicode();
    if (before < 0x80 && after < 0x80)
        return before != u'\r' || after != u'\n';
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text.data(), text.size());
    finder.setPosition(pos);
    return finder.isAtBoundary();
}

qsizetype indexOf(QStringView text, QStringView needle)
{
    for (qsizetype at = text.indexOf(needle); at >= 0; at = text.indexOf(needle, at + 1)) {
        if (isBoundary(text, at) && isBoundary(text, at + needle.size()))
            return at;
    }
    return -1;
}

bool startsWith(QStringView text, QStringView prefix)
{
    return text.startsWith(prefix) && isBoundary(text, prefix.size());
}

bool endsWith(QStringView text, QStringView suffix)
{
    return text.endsWith(suffix) && isBoundary(text, text.size() - suffix.size());
}

QList<QStringView> splitLines(QStringView text, bool keepEmpty)
{
    QList<QStringView> lines;
    qsizetype start = 0;
    for (qsizetype at = text.indexOf(u'\n'); at >= 0; at = text.indexOf(u'\n', at + 1)) {
        if (at > 0 && text[at - 1] == u'\r')
            continue;
        if (keepEmpty || at > start)
            lines.append(text.sliced(start, at - start));
        start = at + 1;
    }
    if (keepEmpty || start < text.size())
        lines.append(text.sliced(start));
    return lines;
}

} // namespace CharacterText
