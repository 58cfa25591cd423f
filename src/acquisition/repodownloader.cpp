#include "repodownloader.h"

#include "acquisition/network.h"
#include "common/fileops.h"
#include "common/paths.h"
#include "process/logstore.h"
#include "process/processfailure.h"
#include "process/runprocess.h"

#include <QDir>
#include <QFileInfo>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QProcess>

using namespace Qt::StringLiterals;

namespace RepoDownloader {

QCoro::Task<void> unzip(QString zip, QString dest, LogStore *log, std::shared_ptr<ProcessBox> box,
                        QString unpacker)
{
    // A destination that was never set must not turn into the current folder.
    if (dest.isEmpty() || !QDir::isAbsolutePath(dest))
        throw ProcessFailure(u"There is no folder to unpack the download into."_s);
    removeTree(dest);
    if (!QDir().mkpath(dest))
        throw PlatformError(PlatformError::Kind::FileSystem,
                            u"Could not create the folder \u201c"_s + dest +
                                u"\u201d: a file may stand in its place."_s);
    const QString &program = unpacker;
    const QStringList arguments{u"-x"_s, u"-f"_s, zip, u"-C"_s, dest};
    int status = 0;
    try {
        status = co_await runProcess(program, arguments, box,
                                     [log](const QString &line) { log->append(line); });
    } catch (const LaunchError &error) {
        const QString reason = error.code == QProcess::FailedToStart && !QFileInfo::exists(program)
                                   ? u"it is not installed"_s
                                   : error.reason;
        throw PlatformError(PlatformError::Kind::Launch,
                            u"The unpacker (bsdtar) could not be started: "_s + reason + u"."_s);
    }
    if (box->isStopped())
        throw Cancelled();
    if (status != 0)
        throw ProcessFailure(u"Unpacking the download failed ("_s + QFileInfo(program).fileName() +
                             u" exit "_s + QString::number(status) + u")."_s);
    // Such names cannot be told apart once decoded, so nothing could find or run them.
    if (!hasOnlyUtf8Names(dest))
        throw ProcessFailure(u"The download holds file names that are not valid UTF-8, which "
                             u"this app cannot handle, so it was not installed."_s);
}

QCoro::Task<std::optional<qint64>> remoteSize(QUrl url, TaskScope scope)
{
    QNetworkRequest request(url);
    request.setTransferTimeout(15000);
    std::unique_ptr<QNetworkReply, void (*)(QNetworkReply *)> reply(
        sharedNetwork()->head(request), [](QNetworkReply *r) { r->deleteLater(); });
    co_await finished(reply.get(), scope);
    // Only an estimate hangs on it: the reason goes to the program's log alone.
    if (const auto problem = networkProblem(reply.get()))
        qCInfo(lcNetwork).noquote() << u"No size for "_s + url.toString() + u": "_s + *problem;
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
    if (reply->error() != QNetworkReply::NoError || status < 200 || status > 299 ||
        !length.isValid() || length.toLongLong() < 1)
        co_return std::nullopt;
    co_return length.toLongLong();
}

} // namespace RepoDownloader
