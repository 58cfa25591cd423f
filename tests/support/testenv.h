#pragma once

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// A private world for one test: XDG_DATA_HOME, XDG_CONFIG_HOME and TMPDIR point into
// a fresh temporary folder that is removed afterwards.
class TestEnv
{
public:
    TestEnv();
    ~TestEnv();

    QString root() const { return m_dir.path(); }
    QString data() const { return root() + QStringLiteral("/data"); }
    QString tmp() const { return root() + QStringLiteral("/tmp"); }
    // The launcher's base folder under this environment.
    QString base() const { return data() + QStringLiteral("/Vantro 3D"); }
    // What is left in the temporary folder (the launcher must clean up after itself).
    QStringList tmpEntries() const { return entries(tmp()); }

    // A folder's entries, hidden ones too, sorted by name.
    static QStringList entries(const QString &folder);
    static void writeFile(const QString &path, const QByteArray &content, bool executable = false);
    static QByteArray readFile(const QString &path);
    // Builds a tree below `base`: "a/" is a folder, "a" an empty file, "a*" an
    // executable one, "a=text" a file with that text ("<not UTF-8>" writes bytes that
    // are not, "<fifo>" makes a FIFO, "<huge>" a text file of 5 MiB), "a->b" a link.
    static void build(const QString &base, const QStringList &entries);
    // Makes an empty file at a path given as bytes (which need not be UTF-8), and the
    // folders above it.
    static void touchRaw(const QByteArray &path);
    // Zips the content of `folder` with the real bsdtar.
    static void zipFolder(const QString &folder, const QString &zip);
    // Zips entries described in mtree form (links, ".." names) that a real folder
    // cannot hold.
    static void zipMtree(const QString &mtree, const QString &workDir, const QString &zip);
    // The output of a system tool in the C locale (a failure is fatal).
    static QString toolOutput(const QString &program, const QStringList &arguments,
                              const QString &workDir = {});

private:
    QTemporaryDir m_dir;
    QByteArray m_oldData, m_oldConfig, m_oldTmp;
};

// "a | b | c" as a list, for dense tables.
inline QStringList items(const QString &text)
{
    return text.isEmpty() ? QStringList() : text.split(QStringLiteral(" | "));
}

// Sets environment variables ("NAME=value | NAME=value") for one scope, for a child
// such as a fake engine.
struct ScopedEnv
{
    QList<QByteArray> names;
    explicit ScopedEnv(const QString &settings)
    {
        for (const QString &setting : items(settings)) {
            names.append(setting.section(u'=', 0, 0).toUtf8());
            qputenv(names.last().constData(), setting.section(u'=', 1).toUtf8());
        }
    }
    ~ScopedEnv()
    {
        for (const QByteArray &name : names)
            qunsetenv(name.constData());
    }
};

// The fake engine (tests/support/fake-engines) of that name.
QString fakeEngine(const QString &name);
