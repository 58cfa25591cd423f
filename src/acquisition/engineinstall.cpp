#include "engineinstall.h"

#include "acquisition/folderguard.h"
#include "acquisition/network.h"
#include "acquisition/repodownloader.h"
#include "process/logstore.h"
#include "process/processfailure.h"

#include <QCoroNetworkReply>
#include <QDir>
#include <QFile>
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

QCoro::Task<QString> expectedChecksum(EngineSpec spec, QString endpoint)
{
    const QUrl url = checksumListUrl(spec, endpoint);
    if (!url.isValid() || url.scheme().isEmpty())
        throw ProcessFailure(u"Bad checksum address."_s);
    QNetworkRequest request(url);
    request.setTransferTimeout(60000);
    std::unique_ptr<QNetworkReply> reply(sharedNetwork()->get(request));
    co_await qCoro(reply.get()).waitForFinished(std::chrono::milliseconds(-1));
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (status.isValid() && (status.toInt() < 200 || status.toInt() > 299))
        throw ProcessFailure(u"Could not get the engine checksum list (error "_s +
                             QString::number(status.toInt()) + u")."_s);
    if (reply->error() != QNetworkReply::NoError)
        throw PlatformError(PlatformError::Kind::Network,
                            u"Could not get the engine checksum list: "_s + reply->errorString() +
                                u"."_s,
                            reply->error());
    const auto digest = checksumFromList(QString::fromUtf8(reply->readAll()), spec.zipName);
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

QCoro::Task<void> install(QString zip, EngineSpec spec, LogStore *log)
{
    const QString folder = engineFolder(spec);
    // Unpacked beside the engine folder, so that a failed unpack leaves the
    // installed build alone; after the move the guard finds nothing to remove.
    const QString staging = folder + u".unpacking"_s;
    const FolderGuard stagingGuard{staging};
    co_await RepoDownloader::unzip(zip, staging, log);
    if (!firstExecutable(staging))
        throw ProcessFailure(u"The Godot app was not found after unpacking."_s);
    QDir(folder).removeRecursively();
    if (!QDir().rename(staging, folder))
        throw PlatformError(PlatformError::Kind::FileSystem,
                            u"Could not put the engine in place at \u201c"_s + folder +
                                u"\u201d."_s);
    if (!executable(spec))
        throw ProcessFailure(u"The Godot app was not found after unpacking."_s);
}

} // namespace EngineManager
