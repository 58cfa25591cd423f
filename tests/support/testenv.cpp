#include "testenv.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSettings>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

TestEnv::TestEnv()
    : m_oldData(qgetenv("XDG_DATA_HOME")), m_oldConfig(qgetenv("XDG_CONFIG_HOME")),
      m_oldTmp(qgetenv("TMPDIR"))
{
    if (!m_dir.isValid())
        qFatal("no temporary folder");
    QDir().mkpath(data());
    QDir().mkpath(tmp());
    QDir().mkpath(root() + u"/config"_s);
    qputenv("XDG_DATA_HOME", QFile::encodeName(data()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(root() + u"/config"_s));
    qputenv("TMPDIR", QFile::encodeName(tmp()));
    QCoreApplication::setOrganizationName(u"Vantro"_s);
    QCoreApplication::setApplicationName(u"Vantro 3D"_s);
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, root() + u"/config"_s);
}

TestEnv::~TestEnv()
{
    qputenv("XDG_DATA_HOME", m_oldData);
    qputenv("XDG_CONFIG_HOME", m_oldConfig);
    qputenv("TMPDIR", m_oldTmp);
}

QStringList TestEnv::entries(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
}

void TestEnv::writeFile(const QString &path, const QByteArray &content, bool executable)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
        file.write(content) != content.size())
        qFatal("cannot write %s", qPrintable(path));
    if (executable)
        file.setPermissions(file.permissions() | QFileDevice::ExeOwner | QFileDevice::ExeGroup |
                            QFileDevice::ExeOther);
}

void TestEnv::build(const QString &base, const QStringList &entries)
{
    for (const QString &entry : entries) {
        qsizetype arrow = entry.indexOf(u"->"_s);
        const qsizetype equals = entry.indexOf(u'=');
        if (equals > 0 && arrow > equals)
            arrow = -1; // part of the text
        const bool executable = equals < 0 && arrow < 0 && entry.endsWith(u'*');
        const qsizetype end = arrow > 0 ? arrow : equals > 0 ? equals : entry.size() - executable;
        const QString path = base + u'/' + entry.first(end);
        const QString text = equals > 0 ? entry.sliced(equals + 1) : QString();
        QDir().mkpath(entry.endsWith(u'/') ? path : QFileInfo(path).path());
        if (arrow > 0)
            QFile::link(entry.sliced(arrow + 2), path);
        else if (text == u"<fifo>"_s)
            ::mkfifo(QFile::encodeName(path).constData(), 0600);
        else if (!entry.endsWith(u'/'))
            writeFile(path, text == u"<not UTF-8>"_s ? "\xff\xfe" : text.toUtf8(), executable);
        if (text == u"<huge>"_s)
            QFile(path).resize(5 * 1024 * 1024);
    }
}

void TestEnv::touchRaw(const QByteArray &path)
{
    QDir().mkpath(QFile::decodeName(path.left(path.lastIndexOf('/'))));
    ::close(::open(path.constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
}

QByteArray TestEnv::readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void TestEnv::zipFolder(const QString &folder, const QString &zip)
{
    QDir().mkpath(QFileInfo(zip).path());
    QFile::remove(zip);
    toolOutput(u"/usr/bin/bsdtar"_s, {u"--format=zip"_s, u"-cf"_s, zip, u"."_s}, folder);
}

void TestEnv::zipMtree(const QString &mtree, const QString &workDir, const QString &zip)
{
    writeFile(workDir + u"/entries.mtree"_s, mtree.toUtf8());
    QFile::remove(zip);
    toolOutput(u"/usr/bin/bsdtar"_s, {u"--format=zip"_s, u"-cPf"_s, zip, u"@entries.mtree"_s},
               workDir);
}

// In the C locale bsdtar stores names as the bytes given, without the zip's UTF-8
// flag, as old archivers do; bytes that are not UTF-8 then reach the unpacker.
QString TestEnv::toolOutput(const QString &program, const QStringList &arguments,
                            const QString &workDir)
{
    QProcess tool;
    tool.setWorkingDirectory(workDir);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"LC_ALL"_s, u"C"_s);
    tool.setProcessEnvironment(environment);
    tool.start(program, arguments);
    if (!tool.waitForFinished(120000) || tool.exitCode() != 0)
        qFatal("%s failed: %s", qPrintable(program), tool.readAllStandardError().constData());
    return QString::fromUtf8(tool.readAllStandardOutput());
}

QString fakeEngine(const QString &name)
{
    return QStringLiteral(VANTRO_TEST_SUPPORT_DIR "/fake-engines/") + name;
}
