#include "zipend.h"

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
constexpr qint64 recordSize = 22;
constexpr qint64 longestComment = 0xffff;
constexpr qint64 locatorSize = 20;
constexpr qint64 zip64RecordSize = 56;

quint64 little(const char *bytes, int count)
{
    quint64 value = 0;
    for (int i = count - 1; i >= 0; --i)
        value = value << 8 | quint8(bytes[i]);
    return value;
}

struct Descriptor
{
    int fd;
    ~Descriptor()
    {
        if (fd >= 0)
            ::close(fd);
    }
    bool read(char *into, qint64 size, qint64 at) const
    {
        qint64 done = 0;
        while (done < size) {
            const ssize_t got = ::pread(fd, into + done, size_t(size - done), off_t(at + done));
            if (got <= 0)
                return false;
            done += got;
        }
        return true;
    }
};

// Where the central directory must end: the end record, or a zip64 archive's own
// end record, which the locator just before the end record points to.
std::optional<quint64> directoryLimit(const Descriptor &file, const char *record, qint64 recordAt,
                                      quint64 &offset, quint64 &size)
{
    const bool zip64 =
        little(record + 10, 2) == 0xffff || size == 0xffffffff || offset == 0xffffffff;
    if (!zip64)
        return quint64(recordAt);
    if (recordAt < locatorSize + zip64RecordSize)
        return std::nullopt;
    char locator[locatorSize];
    if (!file.read(locator, locatorSize, recordAt - locatorSize) ||
        little(locator, 4) != 0x07064b50)
        return std::nullopt;
    const quint64 at = little(locator + 8, 8);
    if (at > quint64(recordAt - locatorSize - zip64RecordSize))
        return std::nullopt;
    char large[zip64RecordSize];
    if (!file.read(large, zip64RecordSize, qint64(at)) || little(large, 4) != 0x06064b50)
        return std::nullopt;
    size = little(large + 40, 8);
    offset = little(large + 48, 8);
    return at;
}
} // namespace

std::optional<ZipEnd> readZipEnd(const QString &path)
{
    const Descriptor file{::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC)};
    struct stat status;
    if (file.fd < 0 || ::fstat(file.fd, &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_size < recordSize)
        return std::nullopt;
    const qint64 length = status.st_size;
    const qint64 tailSize = std::min(length, recordSize + longestComment);
    const qint64 tailAt = length - tailSize;
    QByteArray tail(tailSize, Qt::Uninitialized);
    if (!file.read(tail.data(), tailSize, tailAt))
        return std::nullopt;
    // From the end back: the record whose comment ends exactly where the file does.
    for (qint64 at = tailSize - recordSize; at >= 0; --at) {
        const char *record = tail.constData() + at;
        if (little(record, 4) != 0x06054b50 ||
            at + recordSize + qint64(little(record + 20, 2)) != tailSize)
            continue;
        quint64 size = little(record + 12, 4), offset = little(record + 16, 4);
        const auto limit = directoryLimit(file, record, tailAt + at, offset, size);
        if (limit && offset <= *limit && size <= *limit - offset)
            return ZipEnd{tail.mid(at + recordSize)};
    }
    return std::nullopt;
}
