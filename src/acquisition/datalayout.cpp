#include "datalayout.h"

#include <QDir>
#include <QStandardPaths>

using namespace Qt::StringLiterals;

DataLayout DataLayout::fromEnvironment()
{
    const QString data = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    return DataLayout(data.isEmpty() ? QDir::homePath() + u"/.local/share"_s : data);
}

DataLayout::DataLayout(QString dataHome)
    : m_dataHome(std::move(dataHome)), m_base(m_dataHome + u"/Vantro 3D"_s)
{}

QString DataLayout::engine(const QString &version) const
{
    return engines() + u'/' + version;
}

QString DataLayout::saves(const QString &projectName) const
{
    return m_dataHome + u"/godot/app_userdata/"_s + projectName;
}

QStringList DataLayout::leftovers(const QStringList &versions) const
{
    QStringList paths{gameStaging(), gameAside(), removal()};
    for (const QString &version : versions)
        paths << engineUnpacking(version) << engineAside(version);
    return paths;
}
