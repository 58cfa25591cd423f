#pragma once

#include <QByteArray>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

/**
 * @brief Debian's tinyproxy on a free loopback port, with a configuration and a log
 * of its own, for the life of the object.
 */
class TestProxy
{
public:
    /** A refusing proxy turns every client away (403), as one that forbids the
     *  launcher would. */
    explicit TestProxy(bool refusing = false);
    ~TestProxy();

    /** As the proxy variables name it: http://127.0.0.1:<port>. */
    QByteArray address() const;
    /** The first lines of the requests it took, from its log ("CONNECT host:port
     *  HTTP/1.1", "GET http://host:port/path HTTP/1.1"). */
    QStringList requests() const;

private:
    QTemporaryDir m_dir;
    QProcess m_process;
    quint16 m_port = 0;
};
