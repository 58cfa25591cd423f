// Times the two folder walks that run on every start of the launcher against `find`
// walking the same tree: the import check over a large project, and the search for
// the project file in a deep tree.
#include "acquisition/enginemanager.h"
#include "project/projectinspector.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <cstdio>
#include <functional>

#include "rounds.h"

using namespace Qt::StringLiterals;

namespace {

void touch(const QString &path, const QByteArray &text = {})
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
        qFatal("cannot create %s", qPrintable(path));
}

void makeFolder(const QString &path)
{
    if (!QDir().mkpath(path))
        qFatal("cannot create %s", qPrintable(path));
}

// A Godot 3 project of 20,000 files in 2,000 folders (40 with 49 subfolders each), ten
// files a folder: three assets, their three sidecars as the engine writes them and
// four files that import nothing; what the sidecars name is in ".import".
void buildProject(const QString &root)
{
    makeFolder(root + u"/.import"_s);
    const QStringList assets{u"png"_s, u"ogg"_s, u"glb"_s};
    const QStringList others{u"gd"_s, u"tscn"_s, u"tres"_s, u"md"_s};
    int folders = 0;
    for (int top = 0; top < 40; ++top) {
        const QString topFolder = root + u"/area%1"_s.arg(top);
        for (int sub = -1; sub < 49; ++sub) {
            const QString folder = sub < 0 ? topFolder : topFolder + u"/part%1"_s.arg(sub);
            makeFolder(folder);
            ++folders;
            for (const QString &extension : assets) {
                touch(folder + u"/asset."_s + extension);
                const QByteArray imported =
                    "asset." + extension.toLatin1() + '-' + QByteArray::number(folders) + ".res";
                touch(root + u"/.import/"_s + QString::fromLatin1(imported));
                touch(folder + u"/asset."_s + extension + u".import"_s,
                      "[remap]\n\nimporter=\"x\"\ntype=\"Resource\"\npath=\"res://.import/" +
                          imported +
                          "\"\n\n[deps]\n\nsource_file=\"res://asset\"\ndest_files=[ "
                          "\"res://.import/" +
                          imported + "\" ]\n\n[params]\n\n");
            }
            for (const QString &extension : others)
                touch(folder + u"/file."_s + extension);
        }
    }
    Q_ASSERT(folders == 2000);
}

// 50,000 entries ten levels deep, wide near the top and single chains below level 4,
// with no project file anywhere.
int buildDeepTree(const QString &root)
{
    const int fanOut[10] = {10, 10, 5, 2, 1, 1, 1, 1, 1, 1};
    QStringList folders{root};
    QStringList level{root};
    for (int depth = 0; depth < 10; ++depth) {
        QStringList next;
        for (const QString &parent : level) {
            for (int i = 0; i < fanOut[depth]; ++i) {
                const QString folder = parent + u"/dir%1"_s.arg(i);
                makeFolder(folder);
                next.append(folder);
            }
        }
        folders += next;
        level = next;
    }
    const int entries = 50000;
    const int folderEntries = int(folders.size()) - 1; // the root is no entry
    const int files = entries - folderEntries;
    for (int i = 0; i < files; ++i)
        touch(folders[i % folders.size()] + u"/file%1.txt"_s.arg(i));
    return folderEntries + files;
}

constexpr int rounds = 21;

// The wall time of one call, in milliseconds.
std::function<double()> timed(std::function<void()> run)
{
    return [run = std::move(run)] {
        QElapsedTimer timer;
        timer.start();
        run();
        return double(timer.nsecsElapsed()) / 1e6;
    };
}

QByteArray shell(const QString &command)
{
    QProcess process;
    process.start(u"/bin/sh"_s, {u"-c"_s, command});
    if (!process.waitForFinished(-1) || process.exitCode() != 0)
        qFatal("failed: %s", qPrintable(command));
    return process.readAllStandardOutput().trimmed();
}

QString quoted(const QString &path)
{
    return u"'"_s + QString(path).replace(u"'"_s, u"'\\''"_s) + u"'"_s;
}

void printCount(const char *name, int count)
{
    std::printf("%s: %d\n", name, count);
}

void print(const char *name, double value)
{
    std::printf("%s: %.1f\n", name, value);
}

void print(const char *name, const Samples &ratio, const char *goal)
{
    std::printf("%s: %.2f (goal %s; %s)\n", name, ratio.median(), goal,
                qPrintable(ratio.rounds(2)));
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    if (!dir.isValid())
        qFatal("no temporary folder");

    const QString project = dir.path() + u"/project"_s;
    buildProject(project);
    const QString countFiles =
        u"find "_s + quoted(project) + u" -not -path '*/.*' -type f | wc -l"_s;
    if (!EngineManager::importIsComplete(project, 3) || shell(countFiles) != "20000")
        qFatal("the project tree is not what the benchmark expects");

    // The uncounted round fills the cache with the tree's entries.
    const auto [importMs, importFindMs] =
        interleavedRounds(rounds, 1, timed([&] { EngineManager::importIsComplete(project, 3); }),
                          timed([&] { shell(countFiles); }));
    printCount("import_tree_files", 20000);
    print("import_check_ms", Samples(importMs).median());
    print("find_ms", Samples(importFindMs).median());
    print("import_check_vs_find", ratios(Samples(importMs), Samples(importFindMs)), "≤ 2");

    const QString deep = dir.path() + u"/deep"_s;
    const int entries = buildDeepTree(deep);
    const QString listShallow =
        u"find "_s + quoted(deep) + u" -maxdepth 4 -not -path '*/.*' | wc -l"_s;
    if (ProjectInspector::findProjectRoot(deep))
        qFatal("the deep tree holds no project file");

    const auto [rootMs, rootFindMs] =
        interleavedRounds(rounds, 1, timed([&] { ProjectInspector::findProjectRoot(deep); }),
                          timed([&] { shell(listShallow); }));
    printCount("root_tree_entries", entries);
    printCount("root_tree_entries_to_level_4", shell(listShallow).toInt() - 1);
    print("find_root_ms", Samples(rootMs).median());
    print("find_maxdepth_ms", Samples(rootFindMs).median());
    print("find_root_vs_find", ratios(Samples(rootMs), Samples(rootFindMs)), "≤ 2");
    return 0;
}
