#include "singleinstance.h"

#include <QDBusAbstractAdaptor>
#include <QDBusConnectionInterface>
#include <QDBusMessage>

using namespace Qt::StringLiterals;

namespace {
const QString applicationInterface = u"org.freedesktop.Application"_s;

class ApplicationAdaptor : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")

public:
    explicit ApplicationAdaptor(SingleInstance *instance)
        : QDBusAbstractAdaptor(instance), m_instance(instance)
    {}

public Q_SLOTS:
    void Activate(const QVariantMap &platformData)
    {
        Q_UNUSED(platformData);
        Q_EMIT m_instance->activationRequested();
    }
    // The launcher opens no files and has no actions; both still bring it forward.
    void Open(const QStringList &uris, const QVariantMap &platformData)
    {
        Q_UNUSED(uris);
        Activate(platformData);
    }
    void ActivateAction(const QString &name, const QVariantList &parameter,
                        const QVariantMap &platformData)
    {
        Q_UNUSED(name);
        Q_UNUSED(parameter);
        Activate(platformData);
    }

private:
    SingleInstance *m_instance;
};
} // namespace

SingleInstance::SingleInstance(QDBusConnection bus, QObject *parent)
    : QObject(parent), m_bus(std::move(bus))
{}

SingleInstance::~SingleInstance()
{
    if (m_owner) {
        m_bus.unregisterObject(QString::fromLatin1(objectPath));
        m_bus.unregisterService(QString::fromLatin1(busName));
    }
}

SingleInstance::Claim SingleInstance::claim()
{
    if (!m_bus.isConnected())
        return Claim::NoBus;
    const QString name = QString::fromLatin1(busName);
    const QString path = QString::fromLatin1(objectPath);
    // The object goes up before the name, so a request that arrives the moment the
    // name is ours finds someone to answer it.
    new ApplicationAdaptor(this);
    m_bus.registerObject(path, this, QDBusConnection::ExportAdaptors);
    if (m_bus.registerService(name)) {
        m_owner = true;
        return Claim::First;
    }
    m_bus.unregisterObject(path);

    QDBusMessage activate =
        QDBusMessage::createMethodCall(name, path, applicationInterface, u"Activate"_s);
    QVariantMap platformData;
    const QByteArray token = qgetenv("XDG_ACTIVATION_TOKEN");
    if (!token.isEmpty())
        platformData.insert(u"activation-token"_s, QString::fromUtf8(token));
    activate << platformData;
    // Waits with the event loop running, so that a first launcher living in this
    // same process (as in the tests) can answer.
    m_bus.call(activate, QDBus::BlockWithGui, 5000);
    return Claim::AlreadyRunning;
}

#include "singleinstance.moc"
