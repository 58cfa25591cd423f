#include "acquisition/engineinstall.h"
#include "acquisition/filedownloader.h"
#include "acquisition/gameversion.h"
#include "acquisition/repodownloader.h"
#include "app/appmodel.h"
#include "coro.h"
#include "playworld.h"
#include "testca.h"
#include "testenv.h"
#include "testhttpserver.h"
#include "testproxy.h"

#include <QDir>
#include <QHostInfo>
#include <QRegularExpression>
#include <QTest>

using namespace Qt::StringLiterals;
using Route = TestHttpServer::Route;
using Tls = TestHttpServer::Tls;

namespace {
// Lines that a framing error or a lost piece would show as a wrong body.
const QByteArray payload = QByteArray("0123456789abcde\n").repeated(18750);
const Route plain{.body = payload};

// Qt never sends "localhost" or a loopback address through a proxy, so the rows
// that the proxy must see ask for the machine by its own name.
QString machineName()
{
    const QString name = QHostInfo::localHostName();
    const auto ipv4 = [](const auto &a) { return a.protocol() == QHostAddress::IPv4Protocol; };
    return std::ranges::any_of(QHostInfo::fromName(name).addresses(), ipv4) ? name : QString();
}

const QString digest = u"0123456789abcdef"_s.repeated(8);
const EngineSpec spec{u"4.3-stable"_s, u"Godot_v4.3-stable_linux.x86_64.zip"_s, 4};
} // namespace

class TestNetwork : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        TestCa::trustInThisProcess();
        for (const char *name : {"https_proxy", "HTTPS_PROXY", "http_proxy", "HTTP_PROXY",
                                 "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"})
            qunsetenv(name);
        m_proxy.emplace();
        m_refusing.emplace(true);
    }

    void fetches_data()
    {
        QTest::addColumn<QString>("host");        // "machine": machineName()
        QTest::addColumn<QString>("environment"); // NAME=VALUE, blank-separated
        QTest::addColumn<bool>("proxied");
        QTest::addColumn<QString>("outcome");
        QTest::addColumn<int>("tls");
        QTest::addColumn<Route>("route");
        QTest::addColumn<QString>("what"); // file, checksum (the list), size
        QTest::addColumn<QString>("hop");  // where the route redirects to: http

        const Route reset{.body = payload, .resetAfterBytes = 100000};
        const Route sums{.body = (digest + u"  "_s + spec.zipName + u'\n').toUtf8()};
        const auto row = [&](const char *name, const QString &host, const QString &environment,
                             bool proxied, const QString &outcome, Tls tls = Tls::Valid,
                             const Route &route = plain, const QString &what = u"file"_s,
                             const QString &hop = {}) {
            QTest::newRow(name) << host << environment << proxied << outcome << int(tls) << route
                                << what << hop;
        };
        const QString whole = u"whole file, 300000 of 300000 bytes"_s;
        const QString unverified = u"The download failed: the secure connection to {host} could "
                                   u"not be verified (the certificate "_s;
        const QString refused = u"the proxy server {refusing} refused the connection."_s;
        const QString viaProxy = u"https_proxy=http://{proxy}"_s;
        const QString viaRefusing = u"https_proxy=http://{refusing}"_s;
        const QString local = u"127.0.0.1"_s, machine = u"machine"_s, none;

        row("https", local, none, false, whole);
        row("https redirected to http", local, none, false,
            u"The download failed: the server redirected it from a secure (https) address to an "
            u"insecure (http) one, which is refused."_s,
            Tls::Valid, plain, u"file"_s, u"http"_s);
        row("certificate for another host", u"127.0.0.2"_s, none, false,
            unverified + u"is for a different host)."_s, Tls::WrongHost);
        row("expired certificate", u"localhost"_s, none, false, unverified + u"has expired)."_s,
            Tls::Expired);
        row("certificate from an unknown CA", local, none, false,
            unverified + u"was not issued by an authority that this computer trusts)."_s,
            Tls::UnknownCa);
        row("stalled handshake", local, none, false,
            u"The download stalled: nothing arrived for 0.5 seconds."_s, Tls::Stall);
        row("reset mid-body", local, none, false,
            u"The download failed: the connection closed before the whole file arrived."_s,
            Tls::Valid, reset);

        // Where Qt 6.4's reading of the variables (through libproxy) goes wrong.
        row("proxy without http://", machine, u"HTTPS_PROXY={proxy}"_s, true, whole);
        row("all_proxy", machine, u"all_proxy=http://{proxy}"_s, true, whole);
        row("no_proxy names the host", machine, viaProxy + u" no_proxy=example.invalid,{host}"_s,
            false, whole);
        row("no_proxy with a leading dot", machine, viaProxy + u" NO_PROXY=.{host}"_s, false,
            whole);
        row("no_proxy names only the end of the host's name", machine,
            viaProxy + u" no_proxy={tail}"_s, true, whole);
        row("no_proxy=*", machine, viaProxy + u" no_proxy=*"_s, false, whole);
        row("refusing proxy", machine, viaRefusing, false, u"The download failed: "_s + refused);

        row("checksum list through the proxy", machine, viaProxy, true, digest, Tls::Valid, sums,
            u"checksum"_s);
        row("checksum list, refusing proxy", machine, viaRefusing, false,
            u"Could not get the engine checksum list: "_s + refused, Tls::Valid, sums,
            u"checksum"_s);
        row("size through the proxy", machine, viaProxy, true, u"300000"_s, Tls::Valid, plain,
            u"size"_s);
    }

    void fetches()
    {
        QFETCH(QString, what);
        QFETCH(int, tls);
        QFETCH(QString, host);
        QFETCH(Route, route);
        QFETCH(QString, hop);
        QFETCH(QString, environment);
        QFETCH(bool, proxied);
        QFETCH(QString, outcome);

        if (host == u"machine") {
            host = machineName();
            if (host.isEmpty())
                QSKIP(
                    "this machine's own name does not resolve, so no request can reach the proxy");
        }
        auto fill = [&](QString text) {
            auto port = [](const TestProxy &proxy) {
                return QString::fromLatin1(proxy.address()).section(u"//"_s, 1);
            };
            return text.replace(u"{host}"_s, host)
                .replace(u"{tail}"_s, host.mid(1))
                .replace(u"{proxy}"_s, port(*m_proxy))
                .replace(u"{refusing}"_s, port(*m_refusing));
        };
        const ScopedEnv variables(fill(environment).split(u' ', Qt::SkipEmptyParts).join(u" | "_s));

        TestEnv env;
        TestHttpServer server(Tls(tls), host);
        const QString path = what == u"checksum" ? u"/releases/4.3-stable/SHA512-SUMS.txt"_s
                                                 : u"/Godot_v4.3-stable_linux.x86_64.zip"_s;
        std::optional<TestHttpServer> next;
        if (!hop.isEmpty()) {
            next.emplace(Tls::None);
            next->setRoute(path, route);
            route = TestHttpServer::redirect(next->url(path).toEncoded());
        }
        server.setRoute(path, route);

        QString result;
        const QString dir = env.root() + u"/downloads"_s;
        if (what == u"file") {
            FileDownloader downloader(dir, spec.zipName);
            downloader.setIdleTimeout(std::chrono::milliseconds(500));
            qint64 written = 0, expected = 0;
            auto got = runTask(downloader.download(server.url(path), [&](qint64 w, qint64 e) {
                written = w;
                expected = e;
            }));
            if (!got.ok())
                result = got.errorText();
            else if (TestEnv::readFile(*got.value) != payload)
                result = u"wrong content"_s;
            else
                result = u"whole file, %1 of %2 bytes"_s.arg(written).arg(expected);
            // Nothing is written unless all of it arrived: no file, no part file.
            QCOMPARE(QDir(dir).entryList(QDir::Files | QDir::Hidden),
                     got.ok() ? QStringList{spec.zipName} : QStringList{});
        } else if (what == u"checksum") {
            const QString endpoint = server.url(u"/releases/"_s).toString();
            auto got = runTask(EngineManager::expectedChecksum(
                spec, endpoint, std::chrono::milliseconds(500), std::make_shared<FetchHandle>()));
            result = got.ok() ? *got.value : got.errorText();
        } else {
            auto got = runTask(RepoDownloader::remoteSize(server.url(path), {}));
            result = *got.value ? QString::number(**got.value) : u"none"_s;
        }

        QCOMPARE(result, fill(outcome));
        if (next)
            QCOMPARE(next->hits(path), 0);
        const QRegularExpression target(QRegularExpression::escape(host) + u":"_s +
                                        QString::number(server.port()) + u"[ /]"_s);
        QCOMPARE(!m_proxy->requests().filter(target).isEmpty(), proxied);
        // Only a proxy that refuses, or a handshake that fails, keeps it from the server.
        const bool reached = !environment.contains(u"{refusing}"_s) &&
                             (Tls(tls) == Tls::Valid || Tls(tls) == Tls::None);
        QCOMPARE(server.hits(path) > 0, reached);
    }

    // A first Play from an empty disk as a player's goes: all over HTTPS, the game's
    // archive chunked without a length, the engine's release address redirecting to
    // another host.
    void firstPlayOverHttps()
    {
        TestEnv env;
        TestHttpServer server(Tls::Valid, u"localhost"_s);
        TestHttpServer mirror(Tls::Valid, u"127.0.0.2"_s);
        AppModel::Config config = PlayWorld{.gamePadding = 500000}.serve(server, env.root());
        config.promotionDelay = std::chrono::milliseconds(400);
        config.settleDelay = std::chrono::milliseconds(50);
        const QString engine = QString::fromLatin1(PlayWorld::enginePath);
        mirror.setRoute(engine, TestHttpServer::file(env.root() + u"/"_s + spec.zipName));
        server.setRoute(engine, TestHttpServer::redirect(mirror.url(engine).toEncoded()));
        server.setRoute(QString::fromLatin1(PlayWorld::gamePath),
                        {.filePath = env.root() + u"/game.zip"_s, .chunked = true});

        ScopedEnv run(u"FAKE_RUN_SECONDS=0.8"_s);
        QStringList gameProgress;
        bool fraction = false;
        AppModel model(config);
        connect(&model, &AppModel::progressTextChanged, this, [&] {
            if (model.state() == AppState::downloading(u"the game"_s)) {
                gameProgress.append(model.progressText());
                fraction = fraction || model.progress();
            }
        });
        model.play();
        QTRY_VERIFY_WITH_TIMEOUT(!model.isWorking(), 30000);
        QVERIFY2(model.state() == AppState::ready(), qPrintable(model.log()->lines().join(u'\n')));
        QVERIFY(mirror.methods(engine).contains("GET"));
        // Bytes and speed, never a total or a fraction.
        QVERIFY2(!gameProgress.filter(u" \u00b7 "_s).isEmpty(),
                 qPrintable(gameProgress.join(u'|')));
        QVERIFY2(gameProgress.filter(u" of "_s).isEmpty(), qPrintable(gameProgress.join(u'|')));
        QVERIFY(!fraction);
    }

    // Asked once the launcher is idle, answered in the player's window or in one log
    // line; never a download.
    void checksForANewerVersion_data()
    {
        QTest::addColumn<QString>("installed"); // the record on disk
        QTest::addColumn<QString>("archive");   // the game's address, below the server
        QTest::addColumn<Route>("refs");
        QTest::addColumn<QString>("newer");
        QTest::addColumn<QString>("logged"); // after "Could not check for a newer version of
                                             // the game: ", or the host's offer

        const QString a = QString(40, u'a'), b = u"b0"_s + QString(38, u'c');
        const QString branch = u"/orrik/Zorbit/archive/refs/heads/master.zip"_s;
        // pkt-lines as git writes them: four hex digits counting themselves, then the line.
        const auto pkt = [](const QByteArray &line) -> QByteArray {
            return QByteArray::number(line.size() + 4, 16).rightJustified(4, '0') + line;
        };
        const auto refs = [&](const QByteArray &before, const QString &master) {
            QByteArray text = pkt("# service=git-upload-pack\n");
            text += "0000";
            text += pkt(b.toLatin1() + " HEAD\0multi_ack side-band-64k\n");
            text += before;
            text += pkt(master.toLatin1() + " refs/heads/master\n");
            text += pkt(a.toLatin1() + " refs/tags/v1\n");
            text += "0000";
            return text;
        };
        const auto served = [](const QByteArray &body) { return Route{.body = body}; };
        QByteArray tags;
        for (int i = 0; tags.size() < 300 * 1024; ++i)
            tags += pkt(a.toLatin1() + " refs/heads/feature" + QByteArray::number(i) + "\n");
        const QString noBranch = u"the host's answer names no branch \u201cmaster\u201d."_s;
        const QString sha = u"sha256:"_s + QString(64, u'e');

        QTest::newRow("newer") << a << branch << served(refs({}, b)) << u"b0ccccc"_s
                               << u"The game's host offers version b0ccccc."_s;
        QTest::newRow("the same, from a short archive address")
            << a << u"/orrik/Zorbit/archive/master.zip"_s << served(refs({}, a)) << QString()
            << u"The game's host offers version aaaaaaa."_s;
        QTest::newRow("branch after a large advertisement")
            << a << branch << served(refs(tags, b)) << QString()
            << u"the host's answer was larger than it may be."_s;
        QTest::newRow("endless advertisement")
            << a << branch
            << Route{.body = refs(tags + tags + tags, b),
                     .sendLength = false,
                     .dripBytesPerChunk = 64 * 1024}
            << QString() << u"the host's answer was larger than it may be."_s;
        QTest::newRow("not git's protocol")
            << a << branch << served("<html>" + refs({}, b)) << QString() << noBranch;
        QTest::newRow("a length that lies")
            << a << branch
            << served(pkt("# service=git-upload-pack\n") + "0000ffff" + b.toLatin1() +
                      " refs/heads/master\n")
            << QString() << noBranch;
        QTest::newRow("a length below its own four")
            << a << branch << served(pkt("# service=git-upload-pack\n") + "0002" + refs({}, b))
            << QString() << noBranch;
        QTest::newRow("no such branch")
            << a << branch
            << served(refs({}, b).replace("refs/heads/master", "refs/heads/masterpiece"))
            << QString() << noBranch;
        QTest::newRow("404") << a << branch << Route{.status = 404} << QString()
                             << u"the host answered with error 404."_s;
        QTest::newRow("stall") << a << branch << Route{.body = "x", .stall = true} << QString()
                               << u"nothing arrived for 0.5 seconds."_s;
        QTest::newRow("redirect to another host")
            << a << branch << TestHttpServer::redirect("http://localhost:1/elsewhere") << QString()
            << u"the host sent it to another address, which is refused."_s;
        QTest::newRow("an address without a branch")
            << a << u"/master.zip"_s << served(refs({}, b)) << QString()
            << u"its address names no branch."_s;
        QTest::newRow("a game known by its archive alone")
            << sha << branch << served(refs({}, b)) << QString() << QString();
    }
    void checksForANewerVersion()
    {
        QFETCH(QString, installed);
        QFETCH(QString, archive);
        QFETCH(Route, refs);
        QFETCH(QString, newer);
        QFETCH(QString, logged);

        TestEnv env;
        TestHttpServer server;
        const QString refsPath = u"/orrik/Zorbit.git/info/refs"_s;
        server.setRoute(refsPath, refs);
        AppModel::Config config;
        config.gameArchiveUrl = server.url(archive).toString();
        config.downloadIdleTimeout = std::chrono::milliseconds(500);
        QVERIFY(GameVersion::write(config.layout, installed));
        AppModel model(config);
        QCOMPARE(model.gameVersion(), installed.right(installed.size() == 40 ? 40 : 64).left(7));
        model.startUpdateChecks();
        const auto said = [&] {
            return model.log()->lines().filter(
                QRegularExpression(u"^(Could not check for a newer version|The game's host)"_s));
        };
        if (logged.isEmpty()) {
            QTest::qWait(300);
        } else {
            QTRY_VERIFY_WITH_TIMEOUT(!said().isEmpty(), 5000);
            const QString line = said().constFirst();
            QVERIFY2(line.endsWith(logged), qPrintable(line));
            QTest::qWait(100); // nothing more comes
        }
        QCOMPARE(said().size(), int(!logged.isEmpty()));
        QCOMPARE(model.newerVersion(), newer);
        QCOMPARE(server.hits(refsPath), int(!logged.isEmpty() && archive != u"/master.zip"));
        QCOMPARE(server.hits(archive), 0);
        // The update's new record makes the line go.
        if (!newer.isEmpty()) {
            QVERIFY(GameVersion::write(config.layout, u"b0"_s + QString(38, u'c')));
            model.refreshFromDisk();
            QCOMPARE(model.newerVersion(), QString());
        }
    }

    void cleanupTestCase()
    {
        // Its network thread would otherwise end only with the application, after the
        // leak checker has looked at the TLS state that thread still holds.
        delete sharedNetwork();
    }

private:
    std::optional<TestProxy> m_proxy, m_refusing;
};

QTEST_GUILESS_MAIN(TestNetwork)
#include "tst_network.moc"
