#include "engineinstall.h"

#include "acquisition/network.h"
#include "acquisition/repodownloader.h"
#include "common/bytecount.h"
#include "common/fileops.h"
#include "process/logstore.h"
#include "process/processfailure.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QNetworkReply>
#include <QRegularExpression>

#include <openssl/evp.h>

#include <memory>

using namespace Qt::StringLiterals;

namespace EngineManager {

std::optional<QString> checksumFromList(const QString &list, const QString &zipName)
{
    static const QRegularExpression separators(u"[ *]+"_s);
    for (QStringView line : QStringView(list).split(u'\n', Qt::SkipEmptyParts)) {
        const auto words = line.split(separators, Qt::SkipEmptyParts);
        if (words.size() >= 2 && words.last() == zipName)
            return words.first().toString().toLower();
    }
    return std::nullopt;
}

QCoro::Task<QString> expectedChecksum(EngineSpec spec, QString endpoint,
                                      std::chrono::milliseconds idleTimeout,
                                      std::shared_ptr<FetchHandle> handle)
{
    Q_ASSERT(handle);
    const QUrl url = checksumListUrl(spec, endpoint);
    if (!url.isValid() || url.scheme().isEmpty())
        throw ProcessFailure(u"Bad checksum address."_s);
    if (handle->wasCancelled())
        throw Cancelled();
    QNetworkRequest request(url);
    request.setTransferTimeout(int(idleTimeout.count()));
    auto fetching = fetchSmall(request, maxChecksumListBytes, handle);
    const SmallFetch got = co_await std::move(fetching);

    const QString failed = u"Could not get the engine checksum list: "_s;
    if (got.tooLarge)
        throw ProcessFailure(u"The engine checksum list is larger than "_s +
                             formatByteCount(maxChecksumListBytes) +
                             u", which no real list is, so it was not read."_s);
    if (const auto problem = redirectProblem(got.error))
        throw PlatformError(PlatformError::Kind::Network, failed + *problem + u"."_s, got.error);
    if (got.status != 0 && (got.status < 200 || got.status > 299))
        throw ProcessFailure(u"Could not get the engine checksum list (error "_s +
                             QString::number(got.status) + u")."_s);
    if (got.timedOut)
        throw PlatformError(PlatformError::Kind::Network,
                            failed + u"nothing arrived for "_s +
                                QString::number(idleTimeout.count() / 1000.0) + u" seconds."_s,
                            QNetworkReply::TimeoutError);
    if (got.problem)
        throw PlatformError(PlatformError::Kind::Network, failed + *got.problem + u"."_s,
                            got.error);
    const auto digest = checksumFromList(QString::fromUtf8(got.body), spec.zipName);
    if (!digest)
        throw ProcessFailure(u"The checksum list has no entry for "_s + spec.zipName + u"."_s);
    co_return *digest;
}

QString sha512(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw PlatformError(PlatformError::Kind::FileSystem,
                            u"Could not read \u201c"_s + path + u"\u201d: "_s + file.errorString());
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                    &EVP_MD_CTX_free);
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha512(), nullptr) != 1)
        throw PlatformError(PlatformError::Kind::FileSystem, u"SHA-512 is not available."_s);

    constexpr qint64 chunk = 1024 * 1024;
    QByteArray buffer(chunk, Qt::Uninitialized);
    for (;;) {
        const qint64 got = file.read(buffer.data(), chunk);
        if (got < 0)
            throw PlatformError(PlatformError::Kind::FileSystem, u"Could not read \u201c"_s + path +
                                                                     u"\u201d: "_s +
                                                                     file.errorString());
        if (got == 0)
            break;
        EVP_DigestUpdate(context.get(), buffer.constData(), size_t(got));
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(context.get(), digest, &length);
    return QString::fromLatin1(
        QByteArray(reinterpret_cast<const char *>(digest), int(length)).toHex());
}

QCoro::Task<void> install(QString zip, EngineSpec spec, DataLayout layout, LogStore *log,
                          std::shared_ptr<ProcessBox> box, QString unpacker)
{
    const QString folder = layout.engine(spec.version);
    // Unpacked beside the engine folder, so that a failed unpack leaves the
    // installed build alone; after the move the guard finds nothing to remove.
    const QString staging = layout.engineUnpacking(spec.version);
    const QString aside = layout.engineAside(spec.version);
    // What a killed run may have left, and a file where the engines' folder belongs.
    removeTree(aside);
    removeUnlessFolder(layout.engines());
    const FolderGuard stagingGuard{staging};
    co_await RepoDownloader::unzip(zip, staging, log, std::move(box), unpacker);
    if (!firstExecutable(staging))
        throw ProcessFailure(u"The Godot app was not found after unpacking."_s);
    replaceByRename(staging, folder, aside, u"the engine"_s);
    if (!executable(layout, spec))
        throw ProcessFailure(u"The Godot app was not found after unpacking."_s);
}

} // namespace EngineManager
