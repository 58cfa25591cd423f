#include "coro.h"
#include "process/gamerunner.h"
#include "process/linesplitter.h"
#include "process/logstore.h"
#include "process/processfailure.h"
#include "process/runprocess.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <csignal>

using namespace Qt::StringLiterals;

namespace {
// Collects lines from whatever thread delivers them.
struct Collector
{
    QMutex mutex;
    QStringList lines;
    LineSink sink()
    {
        return [this](const QString &line) {
            QMutexLocker locker(&mutex);
            lines.append(line);
        };
    }
};

const QString sh = u"/bin/sh"_s;
} // namespace
class TestProcess : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void splitsChunks_data();
    void splitsChunks();
    void runsRealPrograms_data();
    void runsRealPrograms();
    void endsTheWholeRun_data();
    void endsTheWholeRun();
    void gameRunnerAnnouncesAndRecords_data();
    void gameRunnerAnnouncesAndRecords();
    void logTrimsAndCaps_data();
    void logTrimsAndCaps();
    void logKeepsOrderAcrossThreadsAndClear();
    void logCompactsAFlood_data();
    void logCompactsAFlood();
    void logPostsEvenOnTheGuiThread();
};

void TestProcess::splitsChunks_data()
{
    QTest::addColumn<QList<QByteArray>>("chunks");
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<QStringList>("flushed");

    const QByteArray euro = "\xe2\x82\xac"; // three bytes
    QTest::newRow("line then rest")
        << QList<QByteArray>{"a\nb"} << QStringList{u"a"_s} << QStringList{u"b"_s};
    QTest::newRow("empty line kept")
        << QList<QByteArray>{"a\n\nb\n"} << QStringList{u"a"_s, QString(), u"b"_s} << QStringList{};
    QTest::newRow("character split across chunks")
        << QList<QByteArray>{"x" + euro.left(1), euro.mid(1, 1), euro.mid(2) + "y\n"}
        << QStringList{u"x\u20acy"_s} << QStringList{};
    QTest::newRow("no line feed at all")
        << QList<QByteArray>{"par", "tial"} << QStringList{} << QStringList{u"partial"_s};
    QTest::newRow("invalid byte") << QList<QByteArray>{"\xff\n"} << QStringList{u"\ufffd"_s}
                                  << QStringList{};
    QTest::newRow("carriage return stays")
        << QList<QByteArray>{"a\r\n"} << QStringList{u"a\r"_s} << QStringList{};
    QTest::newRow("line feed opens the next chunk")
        << QList<QByteArray>{"ab", "\ncd", "\n"} << QStringList{u"ab"_s, u"cd"_s} << QStringList{};
    QTest::newRow("cut-off character is one replacement")
        << QList<QByteArray>{euro.left(2) + "x\n\xf0\x9f\x98"} << QStringList{u"\ufffdx"_s}
        << QStringList{u"\ufffd"_s};
    QTest::newRow("surrogate and overlong bytes, one each")
        << QList<QByteArray>{"\xed\xa0\x80\xc0\xaf\n"}
        << QStringList{u"\ufffd\ufffd\ufffd\ufffd\ufffd"_s} << QStringList{};
    QTest::newRow("byte order mark starting a line is kept")
        << QList<QByteArray>{"\xef\xbb\xbf"
                             "a\n\xef\xbb\xbf"}
        << QStringList{u"\ufeffa"_s} << QStringList{u"\ufeff"_s};
    const qsizetype max = LineSplitter::maxLineBytes;
    QTest::newRow("endless line cut, rest goes on")
        << QList<QByteArray>{QByteArray(max + 5, 'x'), "yz\n"}
        << QStringList{QString(max, u'x'), u"xxxxxyz"_s} << QStringList{};
    QTest::newRow("cut before a character that would not fit")
        << QList<QByteArray>{QByteArray(max - 1, 'x') + euro + "\n"}
        << QStringList{QString(max - 1, u'x'), u"\u20ac"_s} << QStringList{};
    QTest::newRow("cut across chunks, pending stays bounded")
        << QList<QByteArray>{QByteArray(max - 10, 'a'), QByteArray(max, 'b'), QByteArray(max, 'c')}
        << QStringList{QString(max - 10, u'a') + QString(10, u'b'),
                       QString(max - 10, u'b') + QString(10, u'c')}
        << QStringList{QString(max - 10, u'c')};
}

void TestProcess::splitsChunks()
{
    QFETCH(QList<QByteArray>, chunks);
    QFETCH(QStringList, lines);
    QFETCH(QStringList, flushed);

    LineSplitter splitter;
    QStringList got;
    for (const QByteArray &chunk : chunks)
        got += splitter.feed(chunk);
    QCOMPARE(got, lines);
    QCOMPARE(splitter.flush(), flushed);
    QCOMPARE(splitter.flush(), QStringList{});
}

void TestProcess::runsRealPrograms_data()
{
    QTest::addColumn<QString>("program");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QStringList>("lines"); // with status -1: the launch failure's reason
    QTest::addColumn<int>("status");

    QTest::newRow("last line without feed")
        << sh << QStringList{u"-c"_s, u"printf 'a\\nb'"_s} << QStringList{u"a"_s, u"b"_s} << 0;
    QTest::newRow("stderr merged in order")
        << sh << QStringList{u"-c"_s, u"echo out; echo err >&2; echo out2"_s}
        << QStringList{u"out"_s, u"err"_s, u"out2"_s} << 0;
    QTest::newRow("stderr only, exit code")
        << sh << QStringList{u"-c"_s, u"echo oops >&2; exit 3"_s} << QStringList{u"oops"_s} << 3;
    // Would hang for ever if stdin were inherited or a pipe left open.
    QTest::newRow("stdin at end of file") << u"/bin/cat"_s << QStringList{} << QStringList{} << 0;
    QTest::newRow("read sees end of file")
        << sh << QStringList{u"-c"_s, u"read x; echo status $?"_s} << QStringList{u"status 1"_s}
        << 0;
    QTest::newRow("argument with blanks is one argument")
        << sh << QStringList{u"-c"_s, u"echo \"$1\""_s, u"sh"_s, u"two  words"_s}
        << QStringList{u"two  words"_s} << 0;
    QTest::newRow("killed by a signal reports the signal")
        << sh << QStringList{u"-c"_s, u"echo bye; kill -9 $$"_s} << QStringList{u"bye"_s} << 9;
    QTest::newRow("a line without end is cut")
        << sh << QStringList{u"-c"_s, u"head -c 150000 /dev/zero | tr '\\0' x; echo; echo end"_s}
        << QStringList{QString(65536, u'x'), QString(65536, u'x'), QString(18928, u'x'), u"end"_s}
        << 0;
    QTest::newRow("many lines all arrive before the status")
        << sh << QStringList{u"-c"_s, u"seq 1 20000 | tail -n 2"_s}
        << QStringList{u"19999"_s, u"20000"_s} << 0;
    QTest::newRow("missing program") << u"/nonexistent/engine"_s << QStringList{}
                                     << QStringList{u"No such file or directory"_s} << -1;
    QTest::newRow("not executable") << QStringLiteral(VANTRO_TEST_DATA_DIR "/../CMakeLists.txt")
                                    << QStringList{} << QStringList{u"Permission denied"_s} << -1;
}

void TestProcess::runsRealPrograms()
{
    QFETCH(QString, program);
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, lines);
    QFETCH(int, status);

    Collector collector;
    auto box = std::make_shared<ProcessBox>();
    auto outcome = runTask(runProcess(program, arguments, box, collector.sink()), 10000);
    if (status < 0) {
        // The system's own words, without Qt's "execvp: ", and no line at all.
        QVERIFY_THROWS_EXCEPTION(LaunchError, std::rethrow_exception(outcome.error));
        QCOMPARE(outcome.errorText(), lines.value(0));
        QVERIFY(collector.lines.isEmpty());
        QVERIFY(!box->isStopped());
        return;
    }
    QVERIFY2(outcome.ok(), qPrintable(outcome.errorText()));
    QCOMPARE(*outcome.value, status);
    QCOMPARE(collector.lines, lines);
}

void TestProcess::endsTheWholeRun_data()
{
    QTest::addColumn<QString>("script");    // something of the run prints "ready <pid to watch>"
    QTest::addColumn<QString>("how");       // stop, a stop before the start, its own end, abandon
    QTest::addColumn<int>("status");        // -1: the wait throws Cancelled
    QTest::addColumn<QStringList>("lines"); // after "ready"
    QTest::addColumn<bool>("needsKill");

    const QString stubborn = u"trap '' TERM; while :; do sleep 0.05; done"_s;
    // The trap proves the child got a polite SIGTERM and could still print.
    QTest::newRow("trap prints and exits")
        << u"trap 'echo bye; exit 143' TERM; echo ready; while :; do sleep 0.05 & wait; done"_s
        << u"stop"_s << 143 << QStringList{u"bye"_s} << false;
    QTest::newRow("dies of the signal")
        << u"echo ready; exec sleep 30"_s << u"stop"_s << 15 << QStringList{} << false;
    QTest::newRow("ignores the signal")
        << u"echo ready $$; "_s + stubborn << u"stop"_s << 9 << QStringList{} << true;
    // The wrapper dies at once; only the kill after the grace reaches what it started.
    QTest::newRow("grandchild ignores the signal")
        << u"sh -c 'echo ready $$; "_s + stubborn + u"' & wait"_s << u"stop"_s << 15
        << QStringList{} << true;
    QTest::newRow("helper in a session of its own")
        << u"setsid sh -c 'echo ready $$; "_s + stubborn + u"' & wait"_s << u"stop"_s << 15
        << QStringList{} << true;
    // Its parent is gone before the stop: only the run's mark still ties it to the run.
    QTest::newRow("helper orphaned into a session of its own")
        << u"sh -c \"setsid sh -c 'echo ready \\$\\$; "_s + stubborn +
               u"' &\"; while :; do sleep 0.05; done"_s
        << u"stop"_s << 15 << QStringList{} << true;
    QTest::newRow("a stop before the start finds nothing to stop")
        << u"echo ready"_s << u"early"_s << 0 << QStringList{} << false;
    QTest::newRow("what outlives a child that ended on its own")
        << u"sh -c 'echo ready $$; "_s + stubborn + u"' & sleep 0.3"_s << u"end"_s << 0
        << QStringList{} << true;
    QTest::newRow("the owner goes")
        << u"echo ready $$; "_s + stubborn << u"abandon"_s << -1 << QStringList{} << true;
}

void TestProcess::endsTheWholeRun()
{
    QFETCH(QString, script);
    QFETCH(QString, how);
    QFETCH(int, status);
    QFETCH(QStringList, lines);
    QFETCH(bool, needsKill);

    Collector collector;
    constexpr std::chrono::milliseconds grace{400};
    TaskScope scope;
    auto box = std::make_shared<ProcessBox>(scope, grace);
    if (how == u"early")
        box->stop();
    const QStringList args{u"-c"_s, script};
    bool done = false;
    std::optional<int> result;
    // A named closure: the coroutine reads its captures after this statement.
    auto body = [&]() -> QCoro::Task<void> {
        try {
            result = co_await runProcess(sh, args, box, collector.sink());
        } catch (const Cancelled &) {
            result = -1;
        }
        done = true;
    };
    auto task = body();
    auto firstLine = [&] {
        QMutexLocker locker(&collector.mutex);
        return collector.lines.value(0);
    };
    QTRY_VERIFY_WITH_TIMEOUT(firstLine().startsWith(u"ready"_s), 5000);
    const pid_t watched = firstLine().section(u' ', 1).toInt();
    // Whatever fails below, nothing outlives the test.
    const auto reap = qScopeGuard([watched] {
        if (watched > 0)
            ::kill(watched, SIGKILL);
    });
    QElapsedTimer clock;
    clock.start();
    if (how == u"stop")
        box->stop();
    if (how == u"abandon")
        scope.abandon();
    QTRY_VERIFY_WITH_TIMEOUT(done, 5000);
    if (how == u"end" || how == u"abandon")
        clock.restart(); // the run ends, or its owner leaves it, here
    QCOMPARE(*result, status);
    QCOMPARE(box->isStopped(), how == u"stop" || how == u"early");
    QVERIFY2(collector.lines.mid(1) == lines, qPrintable(collector.lines.join(u'|')));
    // Gone, and collected if it became ours: a zombie still answers kill(pid, 0).
    if (watched > 0)
        QTRY_VERIFY_WITH_TIMEOUT(::kill(watched, 0) != 0, 5000);
    // Killed only once the grace is over, and not much later.
    QCOMPARE(clock.elapsed() >= grace.count() - 50, needsKill);
    QVERIFY(clock.elapsed() < 3000);
}

void TestProcess::gameRunnerAnnouncesAndRecords_data()
{
    QTest::addColumn<QString>("engine");
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QStringList>("log");
    QTest::addColumn<bool>("launches");

    QTest::newRow("arguments unquoted")
        << u"/bin/echo"_s << QStringList{u"--path"_s, u"/x/my game"_s}
        << QStringList{u"Starting: echo --path /x/my game"_s, u"--path /x/my game"_s} << true;
    QTest::newRow("no arguments keeps the space")
        << u"/bin/true"_s << QStringList{} << QStringList{u"Starting: true "_s} << true;
    QTest::newRow("launch failure after the start line")
        << u"/nonexistent/Godot"_s << QStringList{u"--path"_s}
        << QStringList{u"Starting: Godot --path"_s} << false;
}

void TestProcess::gameRunnerAnnouncesAndRecords()
{
    QFETCH(QString, engine);
    QFETCH(QStringList, args);
    QFETCH(QStringList, log);
    QFETCH(bool, launches);

    LogStore store;
    GameRunner runner({}, std::chrono::milliseconds(123));
    QVERIFY(!runner.box);
    auto outcome = runTask(runner.run(engine, args, &store));
    QCOMPARE(outcome.ok(), launches);
    QVERIFY(runner.box);
    QCOMPARE(runner.box->grace(), std::chrono::milliseconds(123));
    QTRY_COMPARE(store.lines(), log);
}

void TestProcess::logTrimsAndCaps_data()
{
    QTest::addColumn<QStringList>("appended");
    QTest::addColumn<QStringList>("stored");

    QTest::newRow("line endings trimmed, spaces kept")
        << QStringList{u"\r\n  text  \r\n"_s} << QStringList{u"  text  "_s};
    QTest::newRow("inner line feed kept") << QStringList{u"a\nb"_s} << QStringList{u"a\nb"_s};
    QTest::newRow("empty and lone feed stored")
        << QStringList{QString(), u"\n"_s} << QStringList{QString(), QString()};
    QTest::newRow("unicode separators and tabs")
        << QStringList{u"\u2028\u0085\x0b\x0c\ttab\t\u2029"_s} << QStringList{u"\ttab\t"_s};

    QStringList many;
    for (int i = 1; i <= 3001; ++i)
        many.append(QString::number(i));
    QTest::newRow("3001 lines keep the newest 3000") << many << many.mid(1);
}

void TestProcess::logTrimsAndCaps()
{
    QFETCH(QStringList, appended);
    QFETCH(QStringList, stored);

    LogStore store;
    QSignalSpy changed(&store, &LogStore::linesChanged);
    for (const QString &line : appended)
        store.append(line);
    QTRY_COMPARE(store.lines(), stored);
    QVERIFY(store.lines().size() <= LogStore::maxLines);
    QVERIFY(changed.count() >= 1);
}

void TestProcess::logKeepsOrderAcrossThreadsAndClear()
{
    LogStore store;
    constexpr int perThread = 5000;
    // Two writers at once: each one's lines must stay in its own order.
    auto writer = [&store](QChar tag) {
        return QThread::create([&store, tag] {
            for (int i = 0; i < perThread; ++i)
                store.append(tag + QString::number(i));
        });
    };
    std::unique_ptr<QThread> a(writer(u'a')), b(writer(u'b'));
    a->start();
    b->start();
    QVERIFY(a->wait(10000) && b->wait(10000));
    QTRY_COMPARE(store.lines().size(), LogStore::maxLines);
    int lastA = -1, lastB = -1;
    for (const QString &line : store.lines()) {
        int &last = line.startsWith(u'a') ? lastA : lastB;
        const int n = line.mid(1).toInt();
        QVERIFY2(n > last, qPrintable(line));
        last = n;
    }
    QCOMPARE(std::max(lastA, lastB), perThread - 1);

    // clear then append from one thread leaves only the new line; clear of an
    // empty store still tells observers.
    store.append(u"old"_s);
    store.clear();
    store.append(u"x"_s);
    QTRY_COMPARE(store.lines(), QStringList{u"x"_s});
    store.clear();
    QTRY_VERIFY(store.lines().isEmpty());
    QSignalSpy changed(&store, &LogStore::linesChanged);
    store.clear();
    QTRY_COMPARE(changed.count(), 1);
    QVERIFY(store.lines().isEmpty());
}

void TestProcess::logCompactsAFlood_data()
{
    QTest::addColumn<int>("before"); // lines before the clear; -1: no clear
    QTest::addColumn<int>("after");
    QTest::addColumn<int>("width"); // of each line after the clear; 0: as short as can be
    QTest::addColumn<int>("kept");  // the newest lines that stay

    QTest::newRow("flood keeps the newest") << -1 << 20000 << 0 << 3000;
    QTest::newRow("clear inside a flood") << 20000 << 10 << 0 << 10;
    QTest::newRow("flood after a clear") << 10 << 20000 << 0 << 3000;
    QTest::newRow("long lines: the newest within the character bound")
        << -1 << 200 << 64 * 1024 << 64;
}

// A writer thread floods while the GUI thread does not turn: the queue must stay
// bounded and still give exactly what draining everything would have given.
void TestProcess::logCompactsAFlood()
{
    QFETCH(int, before);
    QFETCH(int, after);
    QFETCH(int, width);
    QFETCH(int, kept);
    auto line = [width](int i) {
        return QString(u"a"_s + QString::number(i)).leftJustified(width, u'.');
    };

    LogStore store;
    store.append(u"older"_s);
    QSignalSpy changed(&store, &LogStore::linesChanged);
    std::unique_ptr<QThread> writer(QThread::create([&] {
        for (int i = 0; i < before; ++i)
            store.append(u"b"_s + QString::number(i));
        if (before >= 0)
            store.clear();
        for (int i = 0; i < after; ++i)
            store.append(line(i));
    }));
    writer->start();
    QVERIFY(writer->wait(20000));
    QStringList expected;
    for (int i = after - kept; i < after; ++i)
        expected.append(line(i));
    QTRY_COMPARE(store.lines(), expected);
    // One batch, one notification: the flood cost one event, not one per line.
    QCOMPARE(changed.count(), 1);
}

void TestProcess::logPostsEvenOnTheGuiThread()
{
    LogStore store;
    store.append(u"later"_s);
    QVERIFY(store.lines().isEmpty());
    QTRY_COMPARE(store.lines(), QStringList{u"later"_s});
}

QTEST_GUILESS_MAIN(TestProcess)
#include "tst_process.moc"
