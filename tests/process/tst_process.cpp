#include "coro.h"
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
using Chunks = QList<QByteArray>;

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
    QString first()
    {
        QMutexLocker locker(&mutex);
        return lines.value(0);
    }
};

} // namespace

class TestProcess : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void splitsChunks_data()
    {
        QTest::addColumn<Chunks>("chunks");
        QTest::addColumn<QStringList>("lines"); // the last one is what a flush gives

        const QByteArray euro = "\xe2\x82\xac";
        const qsizetype max = 65536; // 64 KiB, not the constant: a wrong one must show
        QTest::newRow("rest waits for the flush")
            << Chunks{"a\n\nb"} << QStringList{u"a"_s, u""_s, u"b"_s};
        QTest::newRow("character split across chunks, CR kept")
            << Chunks{"x" + euro.left(1), euro.mid(1, 1), euro.mid(2) + "y\r\n"}
            << QStringList{u"x\u20acy\r"_s};
        QTest::newRow("invalid bytes, one replacement per subpart")
            << Chunks{euro.left(2) + "x\n\xed\xa0\x80\xc0\xaf\n\xf0\x9f\x98"}
            << QStringList{u"\ufffdx"_s, u"\ufffd\ufffd\ufffd\ufffd\ufffd"_s, u"\ufffd"_s};
        QTest::newRow("cut before a character that would not fit")
            << Chunks{QByteArray(max - 1, 'x') + euro + "\n"}
            << QStringList{QString(max - 1, u'x'), u"\u20ac"_s};
        QTest::newRow("lines of exactly 64 KiB stay whole, in one chunk or two")
            << Chunks{QByteArray(max, 'x') + "\n" + QByteArray(max - 1, 'y'), "y\n"}
            << QStringList{QString(max, u'x'), QString(max, u'y')};
        QTest::newRow("cut across chunks, pending stays bounded")
            << Chunks{QByteArray(max - 10, 'a'), QByteArray(max, 'b'), QByteArray(max, 'c')}
            << QStringList{QString(max - 10, u'a') + QString(10, u'b'),
                           QString(max - 10, u'b') + QString(10, u'c'), QString(max - 10, u'c')};
    }
    void splitsChunks()
    {
        QFETCH(Chunks, chunks);
        QFETCH(QStringList, lines);
        LineSplitter splitter;
        QStringList got;
        for (const QByteArray &chunk : chunks)
            got += splitter.feed(chunk);
        QCOMPARE(got + splitter.flush(), lines);
        QCOMPARE(splitter.flush(), QStringList{});
    }

    void runsPrograms_data()
    {
        QTest::addColumn<QString>("script"); // for sh -c; "!path" runs that program instead
        QTest::addColumn<QString>("how");   // "" its own end, "end" and what it leaves, stop, early
                                            // (a stop before the start) or abandon
        QTest::addColumn<int>("status");    // -1: the wait throws
        QTest::addColumn<QString>("shown"); // lines after "ready <pid to watch>", or the error
        QTest::addColumn<bool>("needsKill");

        const QString stubborn = u"trap '' TERM; while :; do sleep 0.05; done"_s;
        QTest::newRow("stderr merged in order, last line without feed")
            << u"echo out; echo err >&2; printf out2; exit 3"_s << QString() << 3
            << u"out | err | out2"_s << false;
        // Would hang for ever if stdin were inherited or a pipe left open.
        QTest::newRow("stdin at end of file, blanks kept in an argument")
            << u"read x; echo \"$? $0\""_s << QString() << 0 << u"1 two  words"_s << false;
        QTest::newRow("killed by a signal reports the signal")
            << u"echo bye; kill -9 $$"_s << QString() << 9 << u"bye"_s << false;
        QTest::newRow("many lines all arrive before the status")
            << u"seq 1 20000 | tail -n 2"_s << QString() << 0 << u"19999 | 20000"_s << false;
        // The system's own words, without Qt's "execvp: ", and no line at all.
        QTest::newRow("missing program") << u"!/nonexistent/engine"_s << QString() << -1
                                         << u"No such file or directory"_s << false;
        // The trap proves the child got a polite SIGTERM first and could still print.
        QTest::newRow("trap prints and exits")
            << u"trap 'echo bye; exit 143' TERM; echo ready; while :; do sleep 0.05 & wait; done"_s
            << u"stop"_s << 143 << u"bye"_s << false;
        QTest::newRow("ignores the signal")
            << u"echo ready $$; "_s + stubborn << u"stop"_s << 9 << QString() << true;
        // The wrapper dies at once; only the kill after the grace reaches what it started.
        QTest::newRow("grandchild ignores the signal")
            << u"sh -c 'echo ready $$; "_s + stubborn + u"' & wait"_s << u"stop"_s << 15
            << QString() << true;
        // Its parent is gone before the stop: only the run's mark still ties it to the run.
        QTest::newRow("helper orphaned into a session of its own")
            << u"sh -c \"setsid sh -c 'echo ready \\$\\$; "_s + stubborn +
                   u"' &\"; while :; do sleep 0.05; done"_s
            << u"stop"_s << 15 << QString() << true;
        QTest::newRow("a stop before the start finds nothing to stop")
            << u"echo ready"_s << u"early"_s << 0 << QString() << false;
        QTest::newRow("what outlives a child that ended on its own")
            << u"sh -c 'echo ready $$; "_s + stubborn + u"' & sleep 0.3"_s << u"end"_s << 0
            << QString() << true;
        QTest::newRow("the owner goes")
            << u"echo ready $$; "_s + stubborn << u"abandon"_s << -1 << u"Cancelled."_s << true;
    }
    void runsPrograms()
    {
        QFETCH(QString, script);
        QFETCH(QString, how);
        QFETCH(int, status);
        QFETCH(QString, shown);
        QFETCH(bool, needsKill);

        Collector collector;
        constexpr std::chrono::milliseconds grace{400};
        TaskScope scope;
        auto box = std::make_shared<ProcessBox>(scope, grace);
        if (how == u"early")
            box->stop();
        const QString program = script.startsWith(u'!') ? script.mid(1) : u"/bin/sh"_s;
        const QStringList args{u"-c"_s, script, u"two  words"_s};
        std::optional<int> result;
        QString error;
        // A named closure: the coroutine reads its captures after this statement.
        auto body = [&]() -> QCoro::Task<void> {
            try {
                result = co_await runProcess(program, args, box, collector.sink());
            } catch (const std::exception &e) {
                error = describeError(e);
                result = -1;
            }
        };
        auto task = body();
        pid_t watched = 0;
        const bool ready = script.contains(u"ready"_s);
        if (ready) {
            QTRY_VERIFY_WITH_TIMEOUT(collector.first().startsWith(u"ready"_s), 5000);
            watched = collector.first().section(u' ', 1).toInt();
        }
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
            scope.abandon(); // resumes the wait on the spot: nothing resumes it later
        QTRY_VERIFY_WITH_TIMEOUT(result.has_value(), 10000);
        if (how == u"end" || how == u"abandon")
            clock.restart(); // the run ends, or its owner leaves it, here
        QCOMPARE(*result, status);
        QCOMPARE(box->isStopped(), how == u"stop" || how == u"early");
        QCOMPARE(error.isEmpty() ? collector.lines.mid(ready ? 1 : 0).join(u" | "_s) : error,
                 shown);
        if (how.isEmpty() || how == u"early")
            return;
        // Gone, and collected if it became ours: a zombie still answers kill(pid, 0).
        QTRY_VERIFY_WITH_TIMEOUT(watched == 0 || ::kill(watched, 0) != 0, 5000);
        // Killed only once the grace is over, and not much later.
        QCOMPARE(clock.elapsed() >= grace.count() - 50, needsKill);
        QVERIFY(clock.elapsed() < 3000);
    }

    // Line feeds and Unicode line ends go from both ends of a line; spaces and tabs stay.
    void logTrimsLineEnds()
    {
        QCOMPARE(LogStore::trimmedLine(u"\r\n  a\nb  \r\n"_s), u"  a\nb  "_s);
        QCOMPARE(LogStore::trimmedLine(u"\n"_s), QString());
        QCOMPARE(LogStore::trimmedLine(u"\u2028\u0085\x0b\x0c\ttab\t\u2029"_s), u"\ttab\t"_s);
    }

    void logKeepsTheNewest_data()
    {
        QTest::addColumn<int>("before"); // lines before the clear; -1: no clear
        QTest::addColumn<int>("after");
        QTest::addColumn<int>("width"); // of each line after the clear; 0: as short as can be
        QTest::addColumn<int>("kept");  // the newest lines that stay

        QTest::newRow("a flood keeps the newest 3000 lines") << -1 << 20000 << 0 << 3000;
        QTest::newRow("clear inside a flood") << 20000 << 10 << 0 << 10;
        QTest::newRow("flood after a clear") << 10 << 3001 << 0 << 3000;
        QTest::newRow("long lines: the newest within 4 Mi characters")
            << -1 << 200 << 64 * 1024 << 64;
    }
    // A writer thread floods while the GUI thread does not turn: the queue must stay
    // bounded and still give exactly what draining everything would have given.
    void logKeepsTheNewest()
    {
        QFETCH(int, before);
        QFETCH(int, after);
        QFETCH(int, width);
        QFETCH(int, kept);
        auto line = [width](int i) { return u"a%1"_s.arg(i).leftJustified(width); };

        LogStore store;
        store.append(u"older"_s);
        QVERIFY(store.lines().isEmpty()); // posted, even on the GUI thread
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
};

QTEST_GUILESS_MAIN(TestProcess)
#include "tst_process.moc"
