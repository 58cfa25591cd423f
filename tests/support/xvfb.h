#pragma once

#include <QProcess>
#include <QStandardPaths>

// A private X server for a test that opens a real engine window; DISPLAY points at it
// while it lives.
class Xvfb
{
public:
    Xvfb() : m_old(qgetenv("DISPLAY"))
    {
        using namespace Qt::StringLiterals;
        m_server.start(QStandardPaths::findExecutable(u"Xvfb"_s),
                       {u"-displayfd"_s, u"1"_s, u"-screen"_s, u"0"_s, u"1024x768x24"_s,
                        u"-nolisten"_s, u"tcp"_s});
        while (m_server.waitForStarted(10000) && !m_server.canReadLine() &&
               m_server.waitForReadyRead(15000)) {
        }
        if (m_server.canReadLine())
            qputenv("DISPLAY", m_display = ':' + m_server.readLine().trimmed());
    }
    ~Xvfb()
    {
        qputenv("DISPLAY", m_old);
        m_server.terminate();
        m_server.waitForFinished(5000);
    }
    bool running() const { return !m_display.isEmpty(); }

private:
    QProcess m_server;
    QByteArray m_old, m_display;
};
