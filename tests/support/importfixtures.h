#pragma once

#include <QString>
#include <QStringList>

// Small Godot 3 projects (config_version=4, a main scene that loads every asset), made
// at test time from Debian's tools and fonts, one per kind of asset the editor's
// import meets in published games:
//   "font": a TrueType font and a DynamicFont resource; Godot 3 imports neither;
//   "images": PNG, JPEG (.jpg and .jpeg), WebP, TGA, BMP, SVG, HDR and EXR;
//   "sounds": WAV and Ogg Vorbis;
//   "meshes": OBJ, glTF (buffer inline), GLB and COLLADA; the three scene formats carry
//     a material, which the editor writes out beside them as a ".material" file;
//   "shipped-sidecars": sidecars committed with the game, as repositories do, with no
//     ".import" folder, so every file they name is missing;
//   "nested": a folder holding its own project.godot, a folder with a ".gdignore" and
//     a hidden folder, each with an image the editor never imports;
//   "textures-in-3d": a texture on a cube in the main scene, which the editor opens:
//     once drawn in 3D the texture is imported a second time, VRAM-compressed;
//   "all": every kind above in one project, each in a folder named after it; its main
//     scene (the 2D nodes in a scene of their own) runs without an error once imported.
struct ImportFixture
{
    // The project folder.
    QString root;
    // The assets the editor imports (each gets "<asset>.import" beside it), relative to
    // the root.
    QStringList imported;
    // Assets it leaves alone: fonts, and those in folders it skips.
    QStringList notImported;
    // The sidecars that ship with the project (relative), naming files not yet there.
    QStringList shippedSidecars;
    // The textures that the editor imports twice, as they are drawn in 3D.
    QStringList drawnIn3d;
};

namespace ImportFixtures {
// All kinds, in the order above, for data rows.
QStringList kinds();
// Writes the project of that kind into `folder`, made if missing; whatever else the
// folder holds stays.
ImportFixture write(const QString &kind, const QString &folder);
// The file that Godot 3 imports `asset` into, without the format's own extension:
// "res://.import/<name>-<MD5 of its res:// path>"; its ".md5" file takes that name too.
QString importBase(const QString &asset);
} // namespace ImportFixtures
