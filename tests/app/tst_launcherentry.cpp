#include "app/appmodel.h"
#include "app/launcherentry.h"
#include "app/modelpreview.h"
#include "testenv.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QTest>

using namespace Qt::StringLiterals;

/**
 * Plays a dock: listens on its own connection to the private session bus that
 * dbus-run-session gives this program, and writes down what the launcher shows.
 */
class TestLauncherEntry : public QObject
{
    Q_OBJECT

public Q_SLOTS:
    void updated(const QDBusMessage &message)
    {
        if (message.arguments().value(0).toString() != LauncherEntry::applicationUri()) {
            m_done = true; // the end marker
            return;
        }
        QVariantMap properties;
        message.arguments().value(1).value<QDBusArgument>() >> properties;
        m_shown << (properties.value(u"progress-visible"_s).toBool()
                        ? QString::number(properties.value(u"progress"_s).toDouble())
                        : u"off"_s);
    }

private Q_SLOTS:
    void initTestCase();
    void progress_data();
    void progress();

private:
    QStringList m_shown;
    bool m_done = false;
};

void TestLauncherEntry::initTestCase()
{
    QVERIFY2(qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS"),
             "run under dbus-run-session, as CTest does");
    QDBusConnection dock = QDBusConnection::connectToBus(QDBusConnection::SessionBus, u"dock"_s);
    QVERIFY(dock.isConnected());
    QVERIFY(dock.connect({}, {}, u"com.canonical.Unity.LauncherEntry"_s, u"Update"_s, this,
                         SLOT(updated(QDBusMessage))));
    // A call answered by the bus comes after the match rule was added.
    QVERIFY(dock.interface()->isServiceRegistered(u"org.freedesktop.DBus"_s).value());
}

void TestLauncherEntry::progress_data()
{
    // Model changes: a state word, or a progress ("none" is indeterminate).
    QTest::addColumn<QString>("changes");
    QTest::addColumn<QString>("shown");

    QTest::newRow("download") << "downloading 0 0.25 0.5 1 ready"
                              << "0 0.25 0.5 1 off";
    QTest::newRow("failure clears") << "downloading 0.3 needs"
                                    << "0.3 off";
    QTest::newRow("setup after download") << "downloading 1 settingUp 0.5 playing"
                                          << "1 0.5 off";
    QTest::newRow("indeterminate hides") << "settingUp none 0.4 none 0.6 ready"
                                         << "0.4 off 0.6 off";
    QTest::newRow("out of range, not a number") << "downloading -0.5 1.7 nan ready"
                                                << "0 1 off";
    QTest::newRow("quit mid-download") << "downloading 0.5"
                                       << "0.5 off";
    QTest::newRow("idle progress ignored") << "ready 0.5 starting 0.7"
                                           << "";
    QTest::newRow("progress before its state") << "0.2 downloading needs"
                                               << "0.2 off";
    QStringList steps, shown;
    for (int i = 0; i <= 1000; ++i)
        steps << QString::number(i / 1000.0);
    for (int i = 0; i <= 100; ++i)
        shown << QString::number(i / 100.0);
    QTest::newRow("many small steps, one per cent")
        << u"downloading "_s + steps.join(u' ') + u" ready"_s << shown.join(u' ') + u" off"_s;
}

void TestLauncherEntry::progress()
{
    QFETCH(QString, changes);
    QFETCH(QString, shown);
    TestEnv env;
    AppModel model(AppModel::Config{});
    m_shown.clear();
    m_done = false;
    {
        LauncherEntry entry(&model);
        const QHash<QString, AppState> states{
            {u"downloading"_s, AppState::downloading(u"the game"_s)},
            {u"settingUp"_s, AppState::settingUp(u"unpacking the game"_s)},
            {u"needs"_s, AppState::needs(u"The download failed."_s)},
            {u"ready"_s, AppState::ready()},
            {u"starting"_s, AppState::starting()},
            {u"playing"_s, AppState::playing()}};
        for (const QString &change : changes.split(u' ')) {
            if (states.contains(change))
                ModelPreview(model).state(states.value(change));
            else if (change == u"none")
                ModelPreview(model).progress(std::nullopt);
            else
                ModelPreview(model).progress(change.toDouble());
        }
    }
    QDBusMessage marker =
        QDBusMessage::createSignal(u"/"_s, u"com.canonical.Unity.LauncherEntry"_s, u"Update"_s);
    marker << u"application://marker.desktop"_s << QVariantMap{};
    QVERIFY(QDBusConnection::sessionBus().send(marker));
    QTRY_VERIFY(m_done);
    QCOMPARE(m_shown.join(u' '), shown);
}

QTEST_GUILESS_MAIN(TestLauncherEntry)
#include "tst_launcherentry.moc"
