#pragma once

#include <QStringList>

// Small Godot 3 projects, one per kind of asset the editor's import meets in published
// games, and "all": every kind in one project, each in a folder named after it. Their
// texts are in tests/data/import/; the binary assets are made from Debian's tools and
// fonts. The main scene loads every asset, so that a missing import shows in the game.
struct ImportFixture
{
    QString root;
    // Relative to the root: the assets that get "<asset>.import" beside them, and those
    // that must not.
    QStringList imported, notImported;
};

namespace ImportFixtures {
// All kinds, for data rows.
QStringList kinds();
// Writes the project of that kind into `folder`, which may not exist yet.
ImportFixture write(const QString &kind, const QString &folder);
// The file that Godot 3 imports `asset` into, without the format's own extension:
// "res://.import/<name>-<MD5 of its res:// path>"; its ".md5" file takes that name too.
QString importBase(const QString &asset);
} // namespace ImportFixtures
