#include "importfixtures.h"

#include "testenv.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QtEndian>

using namespace Qt::StringLiterals;

namespace {

void runTool(const QString &program, const QStringList &arguments)
{
    QProcess tool;
    tool.start(program, arguments);
    if (!tool.waitForFinished(60000) || tool.exitStatus() != QProcess::NormalExit ||
        tool.exitCode() != 0)
        qFatal("%s failed: %s", qPrintable(program), tool.readAllStandardError().constData());
}

// A text scene in Godot 3's format.
struct Scene
{
    QStringList extResources, subResources, nodes;
    bool is3d = false;

    int ext(const QString &path, const QString &type)
    {
        extResources.append(u"[ext_resource path=\"res://%1\" type=\"%2\" id=%3]\n"_s.arg(
            path, type, QString::number(extResources.size() + 1)));
        return int(extResources.size());
    }
    int sub(const QString &type, const QString &body)
    {
        subResources.append(u"[sub_resource type=\"%1\" id=%2]\n%3\n"_s.arg(
            type, QString::number(subResources.size() + 1), body));
        return int(subResources.size());
    }
    // A node of that type, or without one an instance of the scene at `path`;
    // "$" in `properties` stands for the id of the resource at `path`.
    void node(const QString &name, const QString &type, const QString &properties = {},
              const QString &path = {}, const QString &resourceType = {})
    {
        const QString id = path.isEmpty() ? QString() : QString::number(ext(path, resourceType));
        nodes.append(u"[node name=\"%1\" parent=\".\" %2]\n%3"_s.arg(
            name,
            type.isEmpty() ? u"instance=ExtResource( %1 )"_s.arg(id) : u"type=\"%1\""_s.arg(type),
            QString(properties).replace(u'$', id)));
    }
    QByteArray text() const
    {
        QStringList sections = {u"[gd_scene load_steps=%1 format=2]\n"_s.arg(
            extResources.size() + subResources.size() + 1)};
        if (!extResources.isEmpty())
            sections.append(extResources.join(QString()));
        sections << subResources
                 << u"[node name=\"Main\" type=\"%1\"]\n"_s.arg(is3d ? u"Spatial"_s : u"Node"_s)
                 << nodes;
        if (is3d)
            sections.append(u"[node name=\"Camera\" type=\"Camera\" parent=\".\"]\n"
                            u"transform = Transform( 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0.5, 4 )\n"_s);
        return sections.join(u'\n').toUtf8();
    }
};

struct Builder
{
    ImportFixture fixture;
    // The editor opens the main scene in its 3D view only if the scene has more 3D
    // nodes than 2D ones, and only there draws textures in 3D: the 2D nodes go to a
    // scene of their own, which the count leaves out.
    Scene scene, hud;

    QString path(const QString &relative) const { return fixture.root + u'/' + relative; }
    void write(const QString &relative, const QByteArray &content)
    {
        TestEnv::writeFile(path(relative), content);
    }
    void image(const QString &relative, const QString &colour)
    {
        QDir().mkpath(QFileInfo(path(relative)).path());
        if (relative.endsWith(u".svg"_s))
            write(relative, u"<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"16\" height=\"16\">"
                            u"<rect width=\"16\" height=\"16\" fill=\"%1\"/></svg>\n"_s.arg(colour)
                                .toUtf8());
        else
            runTool(u"/usr/bin/convert"_s,
                    {u"-size"_s, u"16x16"_s, u"xc:"_s + colour, path(relative)});
    }
    // A quarter second of 440 Hz. SoX's default WAV (32 bits, WAVE_FORMAT_EXTENSIBLE) is
    // one Godot 3 refuses to import ("not PCM"); 16 bits make plain PCM.
    void tone(const QString &relative)
    {
        QDir().mkpath(QFileInfo(path(relative)).path());
        QStringList arguments = {u"-n"_s, u"-r"_s, u"22050"_s, u"-c"_s, u"1"_s};
        if (relative.endsWith(u".wav"_s))
            arguments << u"-b"_s << u"16"_s;
        runTool(u"/usr/bin/sox"_s,
                arguments << path(relative) << u"synth"_s << u"0.25"_s << u"sine"_s << u"440"_s);
    }
    // Each texture on a sprite of its own, so that a missing import shows in the game.
    void sprite(const QString &name, const QString &texture)
    {
        hud.node(name, u"Sprite"_s,
                 u"position = Vector2( %1, 16 )\ntexture = ExtResource( $ )\n"_s.arg(
                     20 * (hud.nodes.size() + 1)),
                 texture, u"Texture"_s);
    }
    void cube(const QString &name, const QString &texture)
    {
        const int material = scene.sub(
            u"SpatialMaterial"_s,
            u"albedo_texture = ExtResource( %1 )"_s.arg(scene.ext(texture, u"Texture"_s)));
        const int mesh = scene.sub(u"CubeMesh"_s, u"material = SubResource( %1 )"_s.arg(material));
        scene.node(name, u"MeshInstance"_s, u"mesh = SubResource( %1 )\n"_s.arg(mesh));
        scene.is3d = true;
    }
};

QByteArray projectFile(const QString &name, const QString &mainScene)
{
    return (u"config_version=4\n\n[application]\n\nconfig/name=\"%1\"\n"_s.arg(name) +
            (mainScene.isEmpty() ? QString() : u"run/main_scene=\"res://%1\"\n"_s.arg(mainScene)))
        .toUtf8();
}

// One triangle facing +Z: its three positions, then its three normals.
QByteArray triangleBuffer()
{
    QByteArray buffer(18 * 4, Qt::Uninitialized);
    const float values[] = {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 1, 0, 0, 1};
    qToLittleEndian<float>(values, 18, buffer.data());
    return buffer;
}

// glTF 2.0, that triangle with a coloured material; no `uri` for the GLB's own buffer.
QByteArray gltfJson(const QString &material, const QString &colour, const QString &uri = {})
{
    return uR"({"asset":{"version":"2.0"},"scene":0,"scenes":[{"nodes":[0]}],"nodes":[{"mesh":0}],
"materials":[{"name":"%1","pbrMetallicRoughness":{"baseColorFactor":[%2,1]}}],
"meshes":[{"primitives":[{"attributes":{"POSITION":0,"NORMAL":1},"material":0}]}],
"buffers":[{"byteLength":72%3}],"bufferViews":[{"buffer":0,"byteLength":36},
{"buffer":0,"byteOffset":36,"byteLength":36}],"accessors":[{"bufferView":0,"componentType":5126,
"count":3,"type":"VEC3","min":[0,0,0],"max":[1,1,0]},
{"bufferView":1,"componentType":5126,"count":3,"type":"VEC3"}]})"_s
        .arg(material, colour, uri.isEmpty() ? QString() : u",\"uri\":\"%1\""_s.arg(uri))
        .toUtf8();
}

QByteArray glbFile()
{
    QByteArray json = gltfJson(u"GlbGreen"_s, u"0,1,0"_s);
    json.append(QByteArray((4 - json.size() % 4) % 4, ' '));
    const QByteArray binary = triangleBuffer();
    quint32 header[] = {0x46546C67, 2, quint32(28 + json.size() + binary.size()),
                        quint32(json.size()), 0x4E4F534A};               // "glTF", "JSON"
    const quint32 binaryHeader[] = {quint32(binary.size()), 0x004E4942}; // "BIN"
    QByteArray glb(sizeof header + sizeof binaryHeader, Qt::Uninitialized);
    qToLittleEndian<quint32>(header, 5, glb.data());
    qToLittleEndian<quint32>(binaryHeader, 2, glb.data() + sizeof header);
    return glb.left(sizeof header) + json + glb.mid(sizeof header) + binary;
}

QByteArray colladaFile()
{
    return R"(<?xml version="1.0" encoding="utf-8"?>
<COLLADA xmlns="http://www.collada.org/2005/11/COLLADASchema" version="1.4.1">
 <asset><unit meter="1"/><up_axis>Y_UP</up_axis></asset>
 <library_effects><effect id="blue"><profile_COMMON><technique sid="common"><lambert>
  <diffuse><color>0 0 1 1</color></diffuse></lambert></technique></profile_COMMON></effect>
 </library_effects>
 <library_materials><material id="DaeBlue" name="DaeBlue"><instance_effect url="#blue"/></material>
 </library_materials>
 <library_geometries><geometry id="triangle"><mesh>
  <source id="positions"><float_array id="xyz" count="9">0 0 0 1 0 0 0 1 0</float_array>
   <technique_common><accessor source="#xyz" count="3" stride="3"><param name="X" type="float"/>
   <param name="Y" type="float"/><param name="Z" type="float"/></accessor></technique_common></source>
  <source id="normals"><float_array id="n" count="3">0 0 1</float_array>
   <technique_common><accessor source="#n" count="1" stride="3"><param name="X" type="float"/>
   <param name="Y" type="float"/><param name="Z" type="float"/></accessor></technique_common></source>
  <vertices id="vertices"><input semantic="POSITION" source="#positions"/></vertices>
  <triangles material="surface" count="1"><input semantic="VERTEX" source="#vertices" offset="0"/>
   <input semantic="NORMAL" source="#normals" offset="1"/><p>0 0 1 0 2 0</p></triangles>
 </mesh></geometry></library_geometries>
 <library_visual_scenes><visual_scene id="scene"><node id="Triangle" name="Triangle">
  <instance_geometry url="#triangle"><bind_material><technique_common>
   <instance_material symbol="surface" target="#DaeBlue"/></technique_common></bind_material>
  </instance_geometry></node></visual_scene></library_visual_scenes>
 <scene><instance_visual_scene url="#scene"/></scene>
</COLLADA>
)";
}

const QByteArray obj = "v 0 0 0\nv 1 0 0\nv 0 1 0\nvn 0 0 1\nf 1//1 2//1 3//1\n";

// A sidecar as Godot 3 writes it, its [params] cut short (the editor adds the rest):
// "path<variant>" for each variant (".s3tc", or "" for the one plain path).
QByteArray sidecar(const QString &asset, const QString &importer, const QString &type,
                   const QStringList &variants, const QString &extension, const QString &params)
{
    const QString base = ImportFixtures::importBase(asset);
    QString remap, deps;
    QStringList dest;
    for (const QString &variant : variants) {
        const QString file = base + variant + u'.' + extension;
        remap += u"path%1=\"%2\"\n"_s.arg(variant, file);
        dest.append(u'"' + file + u'"');
    }
    if (importer == u"texture"_s && variants.size() > 1)
        remap += u"metadata={\n\"imported_formats\": [ \"s3tc\", \"etc2\" ],\n"
                 u"\"vram_texture\": true\n}\n"_s;
    else if (importer == u"texture"_s)
        remap += u"metadata={\n\"vram_texture\": false\n}\n"_s;
    // The OBJ importer names its mesh twice, as a file it generated and as its import.
    if (importer == u"wavefront_obj"_s) {
        deps = u"files=[ %1 ]\n\n"_s.arg(dest.join(u", "_s));
        dest += dest;
    }
    return u"[remap]\n\nimporter=\"%1\"\ntype=\"%2\"\n%3\n[deps]\n\n%4source_file=\"res://%5\"\n"
           u"dest_files=[ %6 ]\n\n[params]\n\n%7\n"_s
               .arg(importer, type, remap, deps, asset, dest.join(u", "_s), params)
               .toUtf8();
}

void addFont(Builder &b, const QString &dir)
{
    const QString font = dir + u"DejaVuSans.ttf"_s;
    QDir().mkpath(b.path(dir));
    QFile::remove(b.path(font));
    if (!QFile::copy(u"/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf"_s, b.path(font)))
        qFatal("no DejaVuSans.ttf: install fonts-dejavu-core");
    b.write(dir + u"font.tres"_s,
            u"[gd_resource type=\"DynamicFont\" load_steps=2 format=2]\n\n[ext_resource "
            u"path=\"res://%1\" type=\"DynamicFontData\" id=1]\n\n[resource]\nsize = 24\n"
            u"font_data = ExtResource( 1 )\n"_s.arg(font)
                .toUtf8());
    b.hud.node(u"Label"_s, u"Label"_s,
               u"margin_top = 40.0\ncustom_fonts/font = ExtResource( $ )\ntext = \"Vantro\"\n"_s,
               dir + u"font.tres"_s, u"DynamicFont"_s);
    b.fixture.notImported.append(font);
}

void addImages(Builder &b, const QString &dir)
{
    const QStringList colours = {u"#f00"_s, u"#0f0"_s, u"#00f"_s, u"#ff0"_s, u"#0ff"_s,
                                 u"#f0f"_s, u"#f80"_s, u"#fff"_s, u"#888"_s};
    const QStringList formats = {u"png"_s, u"jpg"_s, u"jpeg"_s, u"webp"_s, u"tga"_s,
                                 u"bmp"_s, u"svg"_s, u"hdr"_s,  u"exr"_s};
    for (qsizetype i = 0; i < formats.size(); ++i) {
        const QString image = dir + u"image."_s + formats[i];
        b.image(image, colours[i]);
        b.sprite(u"Image_"_s + formats[i], image);
        b.fixture.imported.append(image);
    }
}

void addSounds(Builder &b, const QString &dir)
{
    for (const QString &sound : {u"tone.wav"_s, u"tone.ogg"_s}) {
        b.tone(dir + sound);
        b.scene.node(u"Sound_"_s + sound.right(3), u"AudioStreamPlayer"_s,
                     u"stream = ExtResource( $ )\nautoplay = true\n"_s, dir + sound,
                     u"AudioStream"_s);
        b.fixture.imported.append(dir + sound);
    }
}

void addMeshes(Builder &b, const QString &dir)
{
    b.write(dir + u"triangle.obj"_s, obj);
    b.write(dir + u"triangle.gltf"_s,
            gltfJson(u"GltfRed"_s, u"1,0,0"_s,
                     u"data:application/octet-stream;base64,"_s +
                         QString::fromLatin1(triangleBuffer().toBase64())));
    b.write(dir + u"triangle.glb"_s, glbFile());
    b.write(dir + u"triangle.dae"_s, colladaFile());
    b.scene.node(u"Mesh_obj"_s, u"MeshInstance"_s, u"mesh = ExtResource( $ )\n"_s,
                 dir + u"triangle.obj"_s, u"ArrayMesh"_s);
    for (const QString &format : {u"gltf"_s, u"glb"_s, u"dae"_s})
        b.scene.node(u"Mesh_"_s + format, {}, {}, dir + u"triangle."_s + format, u"PackedScene"_s);
    for (const QString &format : {u"obj"_s, u"gltf"_s, u"glb"_s, u"dae"_s})
        b.fixture.imported.append(dir + u"triangle."_s + format);
    b.scene.is3d = true;
}

void addShippedSidecars(Builder &b, const QString &dir)
{
    const QString icon = dir + u"icon.png"_s, wall = dir + u"wall.png"_s,
                  tone = dir + u"tone.wav"_s, triangle = dir + u"triangle.obj"_s;
    b.image(icon, u"#060"_s);
    b.image(wall, u"#600"_s);
    b.tone(tone);
    b.write(triangle, obj);
    const QStringList plain = {QString()};
    b.write(icon + u".import"_s, sidecar(icon, u"texture"_s, u"StreamTexture"_s, plain, u"stex"_s,
                                         u"compress/mode=0\ndetect_3d=true"_s));
    // As committed once the editor had drawn it in 3D: VRAM-compressed, a file per format.
    b.write(wall + u".import"_s,
            sidecar(wall, u"texture"_s, u"StreamTexture"_s, {u".s3tc"_s, u".etc2"_s}, u"stex"_s,
                    u"compress/mode=2\nflags/repeat=true\nflags/mipmaps=true\ndetect_3d=false"_s));
    b.write(tone + u".import"_s,
            sidecar(tone, u"wav"_s, u"AudioStreamSample"_s, plain, u"sample"_s, {}));
    b.write(triangle + u".import"_s, sidecar(triangle, u"wavefront_obj"_s, u"Mesh"_s, plain,
                                             u"mesh"_s, u"generate_tangents=true"_s));
    b.sprite(u"Shipped_icon"_s, icon);
    b.cube(u"Shipped_wall"_s, wall);
    b.scene.node(u"Shipped_tone"_s, u"AudioStreamPlayer"_s, u"stream = ExtResource( $ )\n"_s, tone,
                 u"AudioStream"_s);
    b.scene.node(u"Shipped_triangle"_s, u"MeshInstance"_s, u"mesh = ExtResource( $ )\n"_s, triangle,
                 u"ArrayMesh"_s);
    for (const QString &asset : {icon, wall, tone, triangle}) {
        b.fixture.imported.append(asset);
        b.fixture.shippedSidecars.append(asset + u".import"_s);
    }
}

void addNested(Builder &b, const QString &dir)
{
    b.image(dir + u"image.png"_s, u"#006"_s);
    b.sprite(u"Nested_image"_s, dir + u"image.png"_s);
    b.fixture.imported.append(dir + u"image.png"_s);
    b.write(dir + u"inner/project.godot"_s, projectFile(u"inner"_s, {}));
    b.write(dir + u"ignored/.gdignore"_s, {});
    for (const QString &skipped :
         {u"inner/image.png"_s, u"ignored/image.png"_s, u".hidden/image.png"_s}) {
        b.image(dir + skipped, u"#000"_s);
        b.fixture.notImported.append(dir + skipped);
    }
}

void addTexturesIn3d(Builder &b, const QString &dir)
{
    b.image(dir + u"wall.png"_s, u"#660"_s);
    b.cube(u"Cube"_s, dir + u"wall.png"_s);
    b.fixture.imported.append(dir + u"wall.png"_s);
    b.fixture.drawnIn3d.append(dir + u"wall.png"_s);
}

const QList<std::pair<QString, void (*)(Builder &, const QString &)>> writers = {
    {u"font"_s, addFont},
    {u"images"_s, addImages},
    {u"sounds"_s, addSounds},
    {u"meshes"_s, addMeshes},
    {u"shipped-sidecars"_s, addShippedSidecars},
    {u"nested"_s, addNested},
    {u"textures-in-3d"_s, addTexturesIn3d}};

} // namespace

QStringList ImportFixtures::kinds()
{
    QStringList kinds;
    for (const auto &[kind, writer] : writers)
        kinds.append(kind);
    return kinds << u"all"_s;
}

ImportFixture ImportFixtures::write(const QString &kind, const QString &folder)
{
    Builder b;
    b.fixture.root = folder;
    QDir().mkpath(folder);
    for (const auto &[name, writer] : writers) {
        if (kind == u"all"_s || kind == name)
            writer(b, kind == name ? QString() : name + u'/');
    }
    if (b.scene.nodes.isEmpty() && b.hud.nodes.isEmpty())
        qFatal("no import fixture of kind %s", qPrintable(kind));
    if (b.scene.nodes.isEmpty()) {
        b.scene = b.hud;
    } else if (!b.hud.nodes.isEmpty()) {
        b.write(u"hud.tscn"_s, b.hud.text());
        b.scene.node(u"Hud"_s, {}, {}, u"hud.tscn"_s, u"PackedScene"_s);
    }
    b.write(u"project.godot"_s, projectFile(u"Fixture: "_s + kind, u"main.tscn"_s));
    b.write(u"main.tscn"_s, b.scene.text());
    return b.fixture;
}

QString ImportFixtures::importBase(const QString &asset)
{
    const QByteArray md5 =
        QCryptographicHash::hash((u"res://"_s + asset).toUtf8(), QCryptographicHash::Md5);
    return u"res://.import/"_s + QFileInfo(asset).fileName() + u'-' +
           QString::fromLatin1(md5.toHex());
}
