#include "bytecount.h"

#include <array>
#include <cmath>
#include <cstdlib>

using namespace Qt::StringLiterals;

QString formatByteCount(qint64 bytes)
{
    if (bytes == 0)
        return u"Zero KB"_s;
    const QString sign = bytes < 0 ? u"-"_s : QString();
    // The magnitude of INT64_MIN does not fit a qint64; a double is precise enough.
    const double magnitude = std::fabs(double(bytes));
    if (magnitude < 1000)
        return sign + QString::number(qint64(magnitude)) +
               (magnitude == 1 ? u" byte"_s : u" bytes"_s);

    struct Unit
    {
        const char16_t *name;
        int decimals;
    };
    static constexpr std::array<Unit, 6> units{
        {{u"KB", 0}, {u"MB", 1}, {u"GB", 2}, {u"TB", 2}, {u"PB", 2}, {u"EB", 2}}};
    double value = magnitude / 1000;
    size_t unit = 0;
    for (;;) {
        const double scale = std::pow(10.0, units[unit].decimals);
        const double rounded = std::round(value * scale) / scale;
        // 999,999 bytes would round to "1000 KB": show it as "1 MB" instead.
        if (rounded >= 1000 && unit + 1 < units.size()) {
            value /= 1000;
            ++unit;
            continue;
        }
        QString number = QString::number(rounded, 'f', units[unit].decimals);
        if (number.contains(u'.')) {
            while (number.endsWith(u'0'))
                number.chop(1);
            if (number.endsWith(u'.'))
                number.chop(1);
        }
        return sign + number + u' ' + QString::fromUtf16(units[unit].name);
    }
}
