#pragma once

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

/**
 * @brief A private world for one test: XDG_DATA_HOME, XDG_CONFIG_HOME and TMPDIR
 * point into a fresh temporary folder that is removed afterwards.
 */
class TestEnv
{
public:
    TestEnv();
    ~TestEnv();

    QString root() const { return m_dir.path(); }
    QString data() const { return root() + QStringLiteral("/data"); }
    QString tmp() const { return root() + QStringLiteral("/tmp"); }
    /** The launcher's base folder under this environment. */
    QString base() const { return data() + QStringLiteral("/Vantro 3D"); }
    /** What is left in the temporary folder (the launcher must clean up after itself). */
    QStringList tmpEntries() const;

    static void writeFile(const QString &path, const QByteArray &content, bool executable = false);
    static QByteArray readFile(const QString &path);
    /** Makes an empty file at a path given as bytes (which need not be UTF-8), and
     *  the folders above it. */
    static void touchRaw(const QByteArray &path);
    /** Zips the content of `folder` with the real bsdtar; fails the test on error. */
    static void zipFolder(const QString &folder, const QString &zip);
    /** Zips entries described in mtree form (links, ".." names) that a real folder
     *  cannot hold. */
    static void zipMtree(const QString &mtree, const QString &workDir, const QString &zip);
    /** The output of a system tool, to check our results against. */
    static QString toolOutput(const QString &program, const QStringList &arguments);

private:
    QTemporaryDir m_dir;
    QByteArray m_oldData, m_oldConfig, m_oldTmp;
};

/** @brief Sets an environment variable (for a child such as a fake engine) for one scope. */
struct ScopedEnv
{
    QByteArray name;
    ScopedEnv(const char *n, const QByteArray &value) : name(n) { qputenv(n, value); }
    ~ScopedEnv() { qunsetenv(name.constData()); }
};

/** A fake engine script from tests/support/fake-engines. */
QString fakeEngine(const QString &name);
