#include "network.h"

#include <QCoreApplication>
#include <QNetworkProxyFactory>
#include <QPointer>

QNetworkAccessManager *sharedNetwork()
{
    static QPointer<QNetworkAccessManager> manager;
    if (!manager) {
        useSystemProxy();
        manager = new QNetworkAccessManager(QCoreApplication::instance());
    }
    return manager;
}

void useSystemProxy()
{
    static const bool once = [] {
        QNetworkProxyFactory::setUseSystemConfiguration(true);
        return true;
    }();
    Q_UNUSED(once);
}
