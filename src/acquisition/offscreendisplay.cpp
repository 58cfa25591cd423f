#include "offscreendisplay.h"

#include "process/linesplitter.h"
#include "process/processbox.h"

#include <QCoreApplication>
#include <QProcess>

#include <QFile>
#include <QRandomGenerator>
#include <QTimer>

#include <csignal>
#include <functional>
#include <optional>
#include <sys/prctl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

struct OffscreenDisplay::State
{
    std::optional<int> display;
    bool ended = false;
    std::function<void()> notify; // set only while start() waits
};

namespace {

// One entry that any display number and any host match: the server is told its
// cookie before it has chosen its number, and clients find it whatever the number.
QByteArray wildcardAuthority(const QByteArray &cookie)
{
    const auto field = [](const QByteArray &data) {
        QByteArray out;
        out.append(char(data.size() >> 8)).append(char(data.size() & 0xff)).append(data);
        return out;
    };
    QByteArray entry("\xff\xff", 2); // FamilyWild
    entry += field({}) + field({}) + field("MIT-MAGIC-COOKIE-1") + field(cookie);
    return entry;
}

// A process of its own rather than a coroutine around runProcess: the server must
// outlive the object that started it by as long as it takes to end, and a coroutine
// left running on its own is not safe to drop in QCoro 0.8.
void serve(const QString &server, const QStringList &arguments,
           const std::shared_ptr<ProcessBox> &box,
           const std::shared_ptr<OffscreenDisplay::State> &state, LineSink onLine)
{
    auto *process = new QProcess(QCoreApplication::instance());
    process->setProgram(server);
    process->setArguments(arguments);
    process->setProcessChannelMode(QProcess::MergedChannels);
    process->setStandardInputFile(QProcess::nullDevice());
    process->setProcessEnvironment(box->environment());
    // As every child: a group of its own, and gone with the launcher however it dies.
    process->setChildProcessModifier([] {
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    });
    // -displayfd 1: the server writes its number on our own pipe once it is ready.
    const auto line = [state, onLine](const QString &text) {
        bool number = false;
        const int display = text.toInt(&number);
        if (!state->display && number && display >= 0) {
            state->display = display;
            if (state->notify)
                state->notify();
        } else if (onLine) {
            onLine(text);
        }
    };
    auto splitter = std::make_shared<LineSplitter>();
    QObject::connect(process, &QProcess::readyReadStandardOutput, process,
                     [process, splitter, line] { splitter->feed(process->readAll(), line); });
    const auto end = [process, state, box](bool started) {
        if (started)
            box->ended();
        state->ended = true;
        if (state->notify)
            state->notify();
        process->deleteLater();
    };
    QObject::connect(process, &QProcess::finished, process, [end] { end(true); });
    QObject::connect(process, &QProcess::errorOccurred, process, [end](QProcess::ProcessError e) {
        if (e == QProcess::FailedToStart)
            end(false);
    });
    process->start(QIODevice::ReadOnly);
    if (const qint64 pid = process->processId(); pid > 0) {
        ::setpgid(pid_t(pid), pid_t(pid));
        box->started(process);
    }
}

} // namespace

QCoro::Task<std::unique_ptr<OffscreenDisplay>>
OffscreenDisplay::start(QString server, QString folder, TaskScope scope,
                        std::chrono::milliseconds grace, std::chrono::milliseconds timeout,
                        LineSink onLine, std::weak_ptr<ProcessBox> *box)
{
    std::unique_ptr<OffscreenDisplay> display(new OffscreenDisplay);
    display->m_authority = folder + u"/Xauthority"_s;
    QByteArray cookie(16, Qt::Uninitialized);
    QRandomGenerator::system()->generate(cookie.begin(), cookie.end());
    QFile file(display->m_authority);
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly) ||
        file.write(wildcardAuthority(cookie)) < 0 || !file.flush())
        co_return std::unique_ptr<OffscreenDisplay>();
    file.close();

    display->m_box = std::make_shared<ProcessBox>(scope, grace);
    *box = display->m_box;
    display->m_state = std::make_shared<State>();
    const QStringList arguments{u"-displayfd"_s,      u"1"_s,         u"-auth"_s,
                                display->m_authority, u"-nolisten"_s, u"tcp"_s,
                                u"-screen"_s,         u"0"_s,         u"1280x800x24"_s};
    serve(server, arguments, display->m_box, display->m_state, onLine);

    State &state = *display->m_state;
    if (!state.display && !state.ended) {
        Wake ready(scope);
        QTimer timer;
        timer.setSingleShot(true);
        QObject::connect(&timer, &QTimer::timeout, &timer, [&ready] { ready.wake(); });
        timer.start(timeout);
        state.notify = [&ready] { ready.wake(); };
        try {
            co_await ready.wait();
        } catch (...) {
            state.notify = nullptr;
            throw;
        }
        state.notify = nullptr;
    }
    if (!state.display || state.ended)
        co_return std::unique_ptr<OffscreenDisplay>(); // the destructor ends what may have started
    display->m_display = u":"_s + QString::number(*state.display);
    co_return display;
}

OffscreenDisplay::~OffscreenDisplay()
{
    if (m_box)
        m_box->terminate();
    if (!m_authority.isEmpty())
        QFile::remove(m_authority);
}
