#pragma once

#include <QByteArray>
#include <QProcess>
#include <QStandardPaths>
#include <QString>

/**
 * @brief A private X server for a test that starts a real engine window. DISPLAY
 * points at it while it lives.
 */
class Xvfb
{
public:
    Xvfb()
    {
        const QString program = QStandardPaths::findExecutable(QStringLiteral("Xvfb"));
        if (program.isEmpty())
            return;
        m_old = qgetenv("DISPLAY");
        m_server.start(program, {QStringLiteral("-displayfd"), QStringLiteral("1"),
                                 QStringLiteral("-screen"), QStringLiteral("0"),
                                 QStringLiteral("1024x768x24"), QStringLiteral("-nolisten"),
                                 QStringLiteral("tcp")});
        if (!m_server.waitForStarted(10000))
            return;
        while (!m_server.canReadLine() && m_server.waitForReadyRead(15000)) {
        }
        if (!m_server.canReadLine())
            return;
        m_display = ":" + m_server.readLine().trimmed();
        qputenv("DISPLAY", m_display);
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
    QByteArray m_display, m_old;
};
