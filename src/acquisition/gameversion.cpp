#include "gameversion.h"

#include "acquisition/datalayout.h"
#include "acquisition/zipend.h"
#include "process/processfailure.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSaveFile>

using namespace Qt::StringLiterals;

namespace GameVersion {
namespace {
const QString sha256Prefix = u"sha256:"_s;

// A full object id: SHA-1, or SHA-256 for repositories that use it.
bool isObjectId(QByteArrayView text)
{
    static const QRegularExpression hex(u"^(?:[0-9a-f]{40}|[0-9a-f]{64})$"_s);
    return hex.match(QString::fromLatin1(text)).hasMatch();
}
} // namespace

QString identify(const QString &zip)
{
    if (const auto end = readZipEnd(zip)) {
        const QByteArray comment = end->comment.trimmed();
        if (isObjectId(comment))
            return QString::fromLatin1(comment);
    }
    QFile file(zip);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file))
        return {};
    return sha256Prefix + QString::fromLatin1(hash.result().toHex());
}

bool isCommit(const QString &record)
{
    return isObjectId(record.toLatin1());
}

QString shortForm(const QString &record)
{
    return (record.startsWith(sha256Prefix) ? record.mid(sha256Prefix.size()) : record).left(7);
}

std::optional<QString> read(const DataLayout &layout)
{
    QFile file(layout.gameVersion());
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QString record = QString::fromLatin1(file.read(128).trimmed());
    if (isCommit(record) ||
        (record.startsWith(sha256Prefix) && isObjectId(record.mid(sha256Prefix.size()).toLatin1())))
        return record;
    return std::nullopt;
}

bool write(const DataLayout &layout, const QString &record)
{
    QSaveFile file(layout.gameVersion());
    return QDir().mkpath(layout.base()) && file.open(QIODevice::WriteOnly) &&
           file.write(record.toLatin1() + '\n') > 0 && file.commit();
}

std::optional<Source> sourceOf(const QUrl &archive)
{
    static const QRegularExpression form(u"^(/.+)/archive/(?:refs/heads/)?([^/]+)\\.zip$"_s);
    const auto match = form.match(archive.path());
    if (!archive.isValid() || archive.host().isEmpty() || !match.hasMatch())
        return std::nullopt;
    QUrl refs = archive.adjusted(QUrl::RemoveQuery | QUrl::RemoveFragment | QUrl::RemoveUserInfo);
    refs.setPath(match.captured(1) + u".git/info/refs"_s);
    refs.setQuery(u"service=git-upload-pack"_s);
    return Source{refs, match.captured(2)};
}

std::optional<QString> commitIn(QByteArrayView text, const QString &branch)
{
    const QByteArray wanted = "refs/heads/" + branch.toUtf8();
    qsizetype at = 0;
    bool announced = false; // the service line, which only the smart protocol sends
    while (at + 4 <= text.size()) {
        bool ok = false;
        const int length = text.sliced(at, 4).toByteArray().toInt(&ok, 16);
        if (!ok || (length > 0 && length < 4) || at + length > text.size())
            return std::nullopt;
        if (length == 0) { // a flush between the service line and the references
            at += 4;
            continue;
        }
        QByteArrayView line = text.sliced(at + 4, length - 4);
        at += length;
        if (line.endsWith('\n'))
            line.chop(1);
        if (!announced) {
            if (line != "# service=git-upload-pack")
                return std::nullopt;
            announced = true;
            continue;
        }
        if (const qsizetype nul = line.indexOf('\0'); nul >= 0)
            line.truncate(nul); // the first reference carries the capabilities
        const qsizetype space = line.indexOf(' ');
        if (space > 0 && line.sliced(space + 1) == wanted && isObjectId(line.first(space)))
            return QString::fromLatin1(line.first(space));
    }
    return std::nullopt;
}

QCoro::Task<QString> latest(Source source, std::chrono::milliseconds idleTimeout,
                            std::shared_ptr<FetchHandle> handle)
{
    QNetworkRequest request(source.refs);
    request.setTransferTimeout(int(idleTimeout.count()));
    // Hosts answer git's own protocol to git's own agent name.
    request.setHeader(QNetworkRequest::UserAgentHeader, u"git/2.0 (Vantro 3D)"_s);
    // An answer from another host is no answer about this repository.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::SameOriginRedirectPolicy);
    auto fetching = fetchSmall(request, maxAdvertisementBytes, handle);
    const SmallFetch got = co_await std::move(fetching);
    if (got.timedOut)
        throw PlatformError(PlatformError::Kind::Network,
                            u"nothing arrived for "_s +
                                QString::number(idleTimeout.count() / 1000.0) + u" seconds"_s);
    // Only the same-origin rule refuses a redirect here.
    if (got.error == QNetworkReply::InsecureRedirectError)
        throw PlatformError(PlatformError::Kind::Network,
                            u"the host sent it to another address, which is refused"_s, got.error);
    if (!redirectProblem(got.error) && got.status != 0 && (got.status < 200 || got.status > 299))
        throw ProcessFailure(u"the host answered with error "_s + QString::number(got.status));
    if (got.problem)
        throw PlatformError(PlatformError::Kind::Network, *got.problem, got.error);
    // A large answer may still hold the branch: branches come before tags and the rest.
    if (const auto commit = commitIn(got.body, source.branch))
        co_return *commit;
    throw ProcessFailure(got.tooLarge ? u"the host's answer was larger than it may be"_s
                                      : u"the host's answer names no branch \u201c"_s +
                                            source.branch + u"\u201d"_s);
}

} // namespace GameVersion
