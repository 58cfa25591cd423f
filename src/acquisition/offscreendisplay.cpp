#include "offscreendisplay.h"

#include "process/processbox.h"

#include <QFile>
#include <QRandomGenerator>
#include <QTimer>

#include <functional>
#include <optional>

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

QCoro::Task<void> serve(QString server, QStringList arguments, std::shared_ptr<ProcessBox> box,
                        std::shared_ptr<OffscreenDisplay::State> state, LineSink onLine)
{
    try {
        // -displayfd 1: the server writes its number on our own pipe once it is ready.
        co_await runProcess(server, arguments, box, [state, onLine](const QString &line) {
            bool number = false;
            const int display = line.toInt(&number);
            if (!state->display && number && display >= 0) {
                state->display = display;
                if (state->notify)
                    state->notify();
            } else if (onLine) {
                onLine(line);
            }
        });
    } catch (const std::exception &) {
        // Not installed, or its owner went: either way there is no display.
    }
    state->ended = true;
    if (state->notify)
        state->notify();
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
    display->m_run = serve(server, arguments, display->m_box, display->m_state, onLine);

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
