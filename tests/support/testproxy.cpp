#include "testproxy.h"

#include "testenv.h"

#include <QDeadlineTimer>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>

using namespace Qt::StringLiterals;

namespace {
constexpr char program[] = "/usr/bin/tinyproxy";

quint16 freePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost);
    return probe.serverPort();
}
} // namespace

TestProxy::TestProxy(bool refusing)
{
    if (!QFileInfo::exists(QString::fromLatin1(program)))
        qFatal("%s is missing: scripts/install-deps.sh installs tinyproxy-bin", program);
    // The port is free when picked, but may be taken before tinyproxy binds it:
    // then it exits, and another port is tried.
    for (int attempt = 0; attempt < 5 && m_process.state() == QProcess::NotRunning; ++attempt) {
        m_port = freePort();
        QByteArray config = "Port " + QByteArray::number(m_port) +
                            "\nListen 127.0.0.1\nTimeout 30\nLogLevel Connect\nLogFile \"" +
                            QFile::encodeName(m_dir.filePath(u"tinyproxy.log"_s)) + "\"\n";
        // With any Allow line, every other client is turned away; nothing is here.
        if (refusing)
            config += "Allow 192.0.2.254\n";
        TestEnv::writeFile(m_dir.filePath(u"tinyproxy.conf"_s), config);
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.start(QString::fromLatin1(program),
                        {u"-d"_s, u"-c"_s, m_dir.filePath(u"tinyproxy.conf"_s)});
        m_process.waitForStarted();
        for (QDeadlineTimer deadline(10000); !deadline.hasExpired();) {
            QTcpSocket probe;
            probe.connectToHost(QHostAddress::LocalHost, m_port);
            if (probe.waitForConnected(200) || m_process.state() == QProcess::NotRunning)
                break;
        }
    }
    if (m_process.state() != QProcess::Running)
        qFatal("tinyproxy did not start");
}

TestProxy::~TestProxy()
{
    m_process.terminate();
    if (!m_process.waitForFinished(5000))
        m_process.kill();
    m_process.waitForFinished();
}

QByteArray TestProxy::address() const
{
    return "http://127.0.0.1:" + QByteArray::number(m_port);
}

QStringList TestProxy::requests() const
{
    static const QRegularExpression request(u"Request \\(file descriptor \\d+\\): (.*)$"_s,
                                            QRegularExpression::MultilineOption);
    QStringList found;
    const QString log = QString::fromUtf8(TestEnv::readFile(m_dir.filePath(u"tinyproxy.log"_s)));
    for (const auto &match : request.globalMatch(log))
        found.append(match.captured(1));
    return found;
}
