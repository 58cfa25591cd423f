#include "processbox.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QMutex>
#include <QMutexLocker>
#include <QPointer>
#include <QProcess>
#include <QThread>
#include <QTimer>
#include <QUuid>

#include <algorithm>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <unordered_map>
#include <vector>

using namespace Qt::StringLiterals;

namespace {
constexpr char tokenName[] = "VANTRO_RUN";

// A process as /proc shows it. The start time tells a process from a later one
// that got the same pid.
struct Proc
{
    pid_t pid = 0;
    pid_t parent = 0;
    pid_t group = 0;
    quint64 start = 0;
    bool zombie = false;
};

bool operator==(const Proc &a, const Proc &b)
{
    return a.pid == b.pid && a.start == b.start;
}

QByteArray readSmall(const QByteArray &path, qsizetype limit)
{
    const int fd = ::open(path.constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return {};
    QByteArray data(limit, Qt::Uninitialized);
    qsizetype size = 0;
    while (size < limit) {
        const ssize_t got = ::read(fd, data.data() + size, size_t(limit - size));
        if (got <= 0)
            break;
        size += got;
    }
    ::close(fd);
    data.truncate(size);
    return data;
}

bool readProc(pid_t pid, Proc *proc)
{
    const QByteArray stat = readSmall("/proc/" + QByteArray::number(pid) + "/stat", 1024);
    // The name in parentheses may hold anything, blanks and parentheses too.
    const qsizetype close = stat.lastIndexOf(')');
    if (close < 0)
        return false;
    const QList<QByteArray> fields = stat.mid(close + 2).split(' ');
    // After the name: state, ppid, pgrp, session, ... starttime is the 20th of these.
    if (fields.size() < 20)
        return false;
    proc->pid = pid;
    proc->zombie = fields[0] == "Z" || fields[0] == "X";
    proc->parent = pid_t(fields[1].toInt());
    proc->group = pid_t(fields[2].toInt());
    proc->start = fields[19].toULongLong();
    return true;
}

// The processes below this one: the only ones a run's can be, since it is a subreaper.
std::vector<Proc> descendantsOfSelf()
{
    std::vector<Proc> all;
    if (DIR *proc = ::opendir("/proc")) {
        while (const dirent *entry = ::readdir(proc)) {
            char *end = nullptr;
            const long pid = std::strtol(entry->d_name, &end, 10);
            Proc found;
            if (pid > 0 && *end == '\0' && readProc(pid_t(pid), &found))
                all.push_back(found);
        }
        ::closedir(proc);
    }
    std::unordered_multimap<pid_t, const Proc *> children;
    for (const Proc &p : all)
        children.emplace(p.parent, &p);
    std::vector<Proc> below;
    std::vector<pid_t> pending{::getpid()};
    while (!pending.empty()) {
        const pid_t parent = pending.back();
        pending.pop_back();
        const auto [from, to] = children.equal_range(parent);
        for (auto it = from; it != to; ++it) {
            below.push_back(*it->second);
            pending.push_back(it->second->pid);
        }
    }
    return below;
}

bool carriesToken(pid_t pid, const QByteArray &token)
{
    const QByteArray environment =
        readSmall("/proc/" + QByteArray::number(pid) + "/environ", 256 * 1024);
    for (const QByteArray &entry : environment.split('\0')) {
        if (entry == token)
            return true;
    }
    return false;
}

void makeSubreaper()
{
    static const bool once = [] {
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        return true;
    }();
    Q_UNUSED(once);
}
} // namespace

struct ProcessBox::Run
{
    mutable QMutex lock; // guards everything below
    QByteArray token;    // NAME=value, as the environment holds it
    QPointer<QProcess> process;
    Proc root;
    bool rootEnded = false;
    bool stopped = false;
    // Every member met so far, so that one that lost its token (a zombie has no
    // environment) or its parent is still known.
    std::vector<Proc> seen;

    // The run's processes now, alive or zombie; updates `seen`.
    std::vector<Proc> members()
    {
        const std::vector<Proc> below = descendantsOfSelf();
        QMutexLocker locker(&lock);
        if (root.pid <= 0)
            return {};
        std::unordered_map<pid_t, const Proc *> byPid;
        for (const Proc &p : below)
            byPid.emplace(p.pid, &p);
        auto isMember = [&](const Proc &p) {
            if (std::find(seen.begin(), seen.end(), p) != seen.end())
                return true;
            if (p.group == root.pid || carriesToken(p.pid, token))
                return true;
            // A descendant of the child, or of a member met before.
            for (const Proc *up = &p; up;) {
                const auto parent = byPid.find(up->parent);
                up = parent == byPid.end() ? nullptr : parent->second;
                if (up && (*up == root || std::find(seen.begin(), seen.end(), *up) != seen.end()))
                    return true;
            }
            return false;
        };
        std::vector<Proc> found;
        for (const Proc &p : below) {
            if (p == root ? !rootEnded : isMember(p))
                found.push_back(p);
        }
        seen = found;
        if (!rootEnded)
            std::erase(seen, root);
        return found;
    }

    // Sends `signal` to every live member; true if there was any.
    bool signalAll(int signal)
    {
        bool any = false;
        for (const Proc &p : members()) {
            if (p.zombie)
                continue;
            ::kill(p.pid, signal);
            any = true;
        }
        return any;
    }

    // Members that ended after this program adopted them are its zombies now. The
    // child itself is QProcess's to collect.
    void reap()
    {
        std::vector<Proc> orphans;
        {
            QMutexLocker locker(&lock);
            orphans = seen;
        }
        for (const Proc &p : orphans) {
            Proc now;
            if (readProc(p.pid, &now) && now == p && now.zombie && now.parent == ::getpid())
                ::waitpid(p.pid, nullptr, WNOHANG);
        }
    }
};

namespace {
QMutex registryLock;
std::vector<std::weak_ptr<ProcessBox::Run>> registry; // guarded by registryLock

// The kill that follows a terminate request: on the application's thread, which
// outlives every model; the run is kept alive by the timer until then.
void killAfter(const std::shared_ptr<ProcessBox::Run> &run, std::chrono::milliseconds grace)
{
    QCoreApplication *app = QCoreApplication::instance();
    if (!app)
        return;
    QMetaObject::invokeMethod(
        app,
        [run, grace] {
            QTimer::singleShot(grace, QCoreApplication::instance(), [run] {
                run->signalAll(SIGKILL);
                // A moment for the kills to land before the zombies are collected.
                QTimer::singleShot(100, QCoreApplication::instance(), [run] { run->reap(); });
            });
        },
        Qt::QueuedConnection);
}

void end(const std::shared_ptr<ProcessBox::Run> &run, std::chrono::milliseconds grace)
{
    if (run->signalAll(SIGTERM))
        killAfter(run, grace);
}
} // namespace

ProcessBox::ProcessBox(TaskScope scope, std::chrono::milliseconds grace)
    : m_scope(std::move(scope)), m_grace(grace), m_run(std::make_shared<Run>())
{
    makeSubreaper();
    m_run->token =
        QByteArray(tokenName) + '=' + QUuid::createUuid().toByteArray(QUuid::WithoutBraces);
    QMutexLocker locker(&registryLock);
    std::erase_if(registry, [](const auto &run) { return run.expired(); });
    registry.push_back(m_run);
}

ProcessBox::~ProcessBox() = default;

QProcessEnvironment ProcessBox::environment() const
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const auto &[name, value] : m_variables.asKeyValueRange()) {
        if (value.isNull())
            environment.remove(name);
        else
            environment.insert(name, value);
    }
    const qsizetype equals = m_run->token.indexOf('=');
    environment.insert(QString::fromLatin1(m_run->token.left(equals)),
                       QString::fromLatin1(m_run->token.mid(equals + 1)));
    return environment;
}

void ProcessBox::setVariable(const QString &name, const QString &value)
{
    m_variables.insert(name, value);
}

void ProcessBox::started(QProcess *process)
{
    const qint64 pid = process->processId();
    Proc root;
    const bool known = pid > 0 && readProc(pid_t(pid), &root);
    QMutexLocker locker(&m_run->lock);
    m_run->process = process;
    if (known)
        m_run->root = root;
}

void ProcessBox::ended()
{
    {
        QMutexLocker locker(&m_run->lock);
        m_run->rootEnded = true;
        m_run->process = nullptr;
    }
    end(m_run, m_grace);
}

void ProcessBox::stop()
{
    {
        QMutexLocker locker(&m_run->lock);
        m_run->stopped = true;
    }
    end(m_run, m_grace);
}

void ProcessBox::terminate()
{
    end(m_run, m_grace);
}

bool ProcessBox::isStopped() const
{
    QMutexLocker locker(&m_run->lock);
    return m_run->stopped;
}

bool ProcessBox::isRunning() const
{
    QMutexLocker locker(&m_run->lock);
    return m_run->process && m_run->process->state() == QProcess::Running;
}

void ProcessBox::endAll(std::chrono::milliseconds grace)
{
    std::vector<std::shared_ptr<Run>> runs;
    {
        QMutexLocker locker(&registryLock);
        for (const auto &weak : registry) {
            if (auto run = weak.lock())
                runs.push_back(std::move(run));
        }
    }
    bool any = false;
    for (const auto &run : runs)
        any = run->signalAll(SIGTERM) || any;
    const auto deadline = std::chrono::steady_clock::now() + grace;
    while (any && std::chrono::steady_clock::now() < deadline) {
        QThread::msleep(20);
        any = false;
        for (const auto &run : runs) {
            for (const Proc &p : run->members())
                any = any || !p.zombie;
        }
    }
    for (const auto &run : runs) {
        run->signalAll(SIGKILL);
        run->reap();
    }
}
