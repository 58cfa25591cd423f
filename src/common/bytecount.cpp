#include "bytecount.h"

#include <array>

using namespace Qt::StringLiterals;

QString formatByteCount(qint64 bytes)
{
    // A no-break space keeps number and unit together wherever a text wraps.
    if (bytes == 0)
        return u"Zero\u00a0KB"_s;
    const QString sign = bytes < 0 ? u"-"_s : QString();
    // Unsigned: the magnitude of INT64_MIN does not fit a qint64.
    const quint64 magnitude = bytes < 0 ? quint64(0) - quint64(bytes) : quint64(bytes);
    if (magnitude < 1000)
        return sign + QString::number(magnitude) +
               (magnitude == 1 ? u"\u00a0byte"_s : u"\u00a0bytes"_s);

    struct Unit
    {
        const char16_t *name;
        int decimals;
    };
    static constexpr std::array<Unit, 6> units{
        {{u"KB", 0}, {u"MB", 1}, {u"GB", 2}, {u"TB", 2}, {u"PB", 2}, {u"EB", 2}}};
    // Integers all the way: a double cannot hold 1.015 exactly and would round
    // 1,015,000,000 bytes down to "1.01 GB".
    using Wide = unsigned __int128;
    Wide divisor = 1000;
    for (size_t unit = 0;; ++unit, divisor *= 1000) {
        Wide scale = 1;
        for (int i = 0; i < units[unit].decimals; ++i)
            scale *= 10;
        const Wide scaled = (Wide(magnitude) * scale * 2 + divisor) / (divisor * 2); // half up
        // 999,999 bytes would round to "1000 KB": show it as "1 MB" instead.
        if (scaled >= 1000 * scale && unit + 1 < units.size())
            continue;
        QString number = QString::number(quint64(scaled / scale));
        if (const quint64 fraction = quint64(scaled % scale); fraction != 0) {
            QString digits = QString::number(fraction).rightJustified(units[unit].decimals, u'0');
            while (digits.endsWith(u'0'))
                digits.chop(1);
            number += u'.' + digits;
        }
        return sign + number + u'\u00a0' + QString::fromUtf16(units[unit].name);
    }
}
