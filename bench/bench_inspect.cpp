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

#include "report.h"
#include "rounds.h"

using namespace Qt::StringLiterals;

namespace {

void touch(const QString &path, const QByteArray &text = {})
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
        throw Failure{u"cannot create "_s + path};
}

void makeFolder(const QString &path)
{
    if (!QDir().mkpath(path))
        throw Failure{u"cannot create "_s + path};
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
        throw Failure{u"failed: "_s + command};
    return process.readAllStandardOutput().trimmed();
}

QString quoted(const QString &path)
{
    return u"'"_s + QString(path).replace(u"'"_s, u"'\\''"_s) + u"'"_s;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const Figure importFiles{"import_tree_files"}, importCheck{"import_check_ms"},
        findMs{"find_ms"}, importVsFind{"import_check_vs_find", "≤ 2"},
        rootEntries{"root_tree_entries"}, rootEntriesTo4{"root_tree_entries_to_level_4"},
        findRoot{"find_root_ms"}, findMaxdepth{"find_maxdepth_ms"},
        rootVsFind{"find_root_vs_find", "≤ 2"};
    Report report("bench_inspect", {importFiles, importCheck, findMs, importVsFind, rootEntries,
                                    rootEntriesTo4, findRoot, findMaxdepth, rootVsFind});
    auto ratio = [&report](const Figure &figure, const Samples &ratio) {
        report.print(figure, fixed(ratio.median(), 2), ratio.rounds(2));
    };
    report.part(report.all(), [&] {
        QTemporaryDir dir;
        if (!dir.isValid())
            throw Failure{u"no temporary folder"_s};

        report.part({importFiles, importCheck, findMs, importVsFind}, [&] {
            const QString project = dir.path() + u"/project"_s;
            buildProject(project);
            const QString countFiles =
                u"find "_s + quoted(project) + u" -not -path '*/.*' -type f | wc -l"_s;
            if (!EngineManager::importIsComplete(project, 3) || shell(countFiles) != "20000")
                throw Failure{u"the project tree is not what the benchmark expects"_s};

            // The uncounted round fills the cache with the tree's entries.
            const auto [importMs, importFindMs] = interleavedRounds(
                rounds, 1, timed([&] { EngineManager::importIsComplete(project, 3); }),
                timed([&] { shell(countFiles); }));
            report.print(importFiles, QString::number(20000));
            report.print(importCheck, fixed(Samples(importMs).median(), 1));
            report.print(findMs, fixed(Samples(importFindMs).median(), 1));
            ratio(importVsFind, ratios(Samples(importMs), Samples(importFindMs)));
        });

        report.part({rootEntries, rootEntriesTo4, findRoot, findMaxdepth, rootVsFind}, [&] {
            const QString deep = dir.path() + u"/deep"_s;
            const int entries = buildDeepTree(deep);
            const QString listShallow =
                u"find "_s + quoted(deep) + u" -maxdepth 4 -not -path '*/.*' | wc -l"_s;
            if (ProjectInspector::findProjectRoot(deep))
                throw Failure{u"the deep tree holds no project file"_s};

            const auto [rootMs, rootFindMs] = interleavedRounds(
                rounds, 1, timed([&] { ProjectInspector::findProjectRoot(deep); }),
                timed([&] { shell(listShallow); }));
            report.print(rootEntries, QString::number(entries));
            report.print(rootEntriesTo4, QString::number(shell(listShallow).toInt() - 1));
            report.print(findRoot, fixed(Samples(rootMs).median(), 1));
            report.print(findMaxdepth, fixed(Samples(rootFindMs).median(), 1));
            ratio(rootVsFind, ratios(Samples(rootMs), Samples(rootFindMs)));
        });
    });
    return report.exitCode();
}
