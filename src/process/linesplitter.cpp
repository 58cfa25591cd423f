#include "linesplitter.h"

QStringList LineSplitter::feed(QByteArrayView data)
{
    QStringList lines;
    feed(data, [&lines](QString &&line) { lines.append(std::move(line)); });
    return lines;
}

QStringList LineSplitter::flush()
{
    if (m_pending.isEmpty())
        return {};
    QStringList last{decode(m_pending)};
    m_pending.clear();
    return last;
}

qsizetype LineSplitter::cutPoint(QByteArrayView bytes)
{
    const qsizetype cut = std::min(bytes.size(), maxLineBytes);
    // Back off to the start of a character that would not fit whole.
    for (qsizetype i = cut - 1; i > 0 && i >= cut - 3; --i) {
        const uchar b = uchar(bytes[i]);
        if ((b & 0xC0) == 0x80)
            continue; // a continuation byte: look further back
        const qsizetype length = b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : b >= 0xC0 ? 2 : 1;
        return i + length > cut ? i : cut;
    }
    return cut;
}

QString LineSplitter::decode(QByteArrayView bytes)
{
    // QString::fromUtf8 replaces a cut-off character byte by byte and drops a
    // leading byte order mark; a log line wants neither.
    const auto *in = reinterpret_cast<const uchar *>(bytes.data());
    const qsizetype size = bytes.size();
    QString text(size, Qt::Uninitialized); // never more UTF-16 units than bytes
    char16_t *out = reinterpret_cast<char16_t *>(text.data());
    qsizetype written = 0;
    qsizetype i = 0;
    while (i < size) {
        const uchar lead = in[i];
        if (lead < 0x80) {
            out[written++] = lead;
            ++i;
            continue;
        }
        // The well-formed sequences: the range of the second byte depends on the
        // lead, every later byte is 80..BF.
        int length = 0;
        uchar low = 0x80, high = 0xBF;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            low = lead == 0xE0 ? 0xA0 : 0x80;
            high = lead == 0xED ? 0x9F : 0xBF;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            low = lead == 0xF0 ? 0x90 : 0x80;
            high = lead == 0xF4 ? 0x8F : 0xBF;
        }
        if (length == 0) {
            out[written++] = 0xFFFD;
            ++i;
            continue;
        }
        char32_t code = lead & (0xFF >> (length + 1));
        int taken = 1;
        for (; taken < length && i + taken < size; ++taken) {
            const uchar next = in[i + taken];
            if (next < (taken == 1 ? low : 0x80) || next > (taken == 1 ? high : 0xBF))
                break;
            code = (code << 6) | (next & 0x3F);
        }
        i += taken;
        if (taken < length) {
            out[written++] = 0xFFFD; // the maximal subpart, as one character
        } else if (code >= 0x10000) {
            out[written++] = char16_t(0xD800 + ((code - 0x10000) >> 10));
            out[written++] = char16_t(0xDC00 + ((code - 0x10000) & 0x3FF));
        } else {
            out[written++] = char16_t(code);
        }
    }
    text.truncate(written);
    return text;
}
