#include "importfixtures.h"

#include "testenv.h"

#include <QCryptographicHash>
#include <QDataStream>
#include <QDirIterator>
#include <QProcess>

using namespace Qt::StringLiterals;

namespace {

// The assets of each kind beyond its texts (" | " between them), made here unless the
// texts hold them.
struct Kind
{
    QString name, imported, notImported;
};

const QList<Kind> table = {
    {u"font"_s, {}, u"DejaVuSans.ttf"_s}, // Godot 3 imports no font, nor a DynamicFont
    {u"images"_s,
     u"image.png | image.jpg | image.webp | image.tga | image.bmp | image.svg | "
     u"image.hdr | image.exr"_s,
     {}},
    {u"sounds"_s, u"tone.wav | tone.ogg"_s, {}},
    {u"meshes"_s, u"triangle.obj | triangle.gltf | triangle.glb | triangle.dae"_s, {}},
    {u"shipped-sidecars"_s, u"icon.png | wall.png"_s, {}}, // sidecars committed, imports not
    // Skipped by the editor: a folder with a project of its own, a ".gdignore", a hidden one.
    {u"nested"_s, u"image.png"_s, u"inner/image.svg | ignored/image.svg | .hidden/image.svg"_s},
    {u"textures-in-3d"_s, u"wall.png"_s, {}}, // on a cube, so imported again, VRAM-compressed
};

// The glTF as a GLB: its JSON without the buffer's data URI, then that buffer in binary.
// The material is renamed, as the editor writes each material to a file of its name.
QByteArray glbFrom(QByteArray json)
{
    const qsizetype uri = json.indexOf(",\"uri\""), data = json.indexOf("base64,") + 7,
                    end = json.indexOf('"', data);
    const QByteArray binary = QByteArray::fromBase64(json.mid(data, end - data));
    json.remove(uri, end + 1 - uri).replace("Gltf", "Glb");
    json.append(QByteArray(-json.size() & 3, ' '));
    QByteArray glb;
    QDataStream out(&glb, QIODevice::WriteOnly);
    out.setByteOrder(QDataStream::LittleEndian);
    out << 0x46546C67u << 2u << quint32(28 + json.size() + binary.size()) // "glTF"
        << quint32(json.size()) << 0x4E4F534Au;                           // "JSON"
    out.writeRawData(json.constData(), int(json.size()));
    out << quint32(binary.size()) << 0x004E4942u; // "BIN"
    out.writeRawData(binary.constData(), int(binary.size()));
    return glb;
}

void make(const QString &path)
{
    const QString suffix = QFileInfo(path).suffix();
    if (suffix == u"glb"_s)
        return TestEnv::writeFile(path, glbFrom(TestEnv::readFile(path.chopped(3) + u"gltf"_s)));
    QStringList tool = {u"/usr/bin/convert"_s, u"-size"_s, u"16x16"_s, u"xc:#4a8"_s, path};
    if (suffix == u"ttf"_s)
        tool = {u"/usr/bin/cp"_s, u"/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf"_s, path};
    // SoX's default WAV (32 bits, WAVE_FORMAT_EXTENSIBLE) is one Godot 3 refuses to import
    // ("not PCM"); 16 bits make plain PCM.
    if (suffix == u"wav"_s || suffix == u"ogg"_s)
        tool = {u"/usr/bin/sox"_s, u"-V1"_s,  u"-n"_s,   u"-b"_s, u"16"_s, path,
                u"synth"_s,        u"0.25"_s, u"sine"_s, u"440"_s};
    if (QProcess::execute(tool.first(), tool.mid(1)) != 0)
        qFatal("cannot make %s (needs imagemagick, sox, fonts-dejavu-core)", qPrintable(path));
}

// Copies the kind's texts into `dir` of the project; a committed sidecar gets the
// names the editor gives its asset's imported files.
void copyTexts(const QString &kind, const QString &root, const QString &dir)
{
    const QString from = QStringLiteral(VANTRO_TEST_DATA_DIR "/import/") + kind;
    QDirIterator it(from, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString relative = dir + it.next().mid(from.size() + 1);
        QByteArray text = TestEnv::readFile(it.filePath());
        if (relative.endsWith(u".import"_s))
            text.replace("@BASE@", ImportFixtures::importBase(relative.chopped(7)).toUtf8())
                .replace("@ASSET@", relative.chopped(7).toUtf8());
        TestEnv::writeFile(root + u'/' + relative, text);
    }
}

} // namespace

QStringList ImportFixtures::kinds()
{
    QStringList kinds;
    for (const Kind &kind : table)
        kinds.append(kind.name);
    return kinds << u"all"_s;
}

ImportFixture ImportFixtures::write(const QString &kind, const QString &folder)
{
    ImportFixture fixture{folder, {}, {}};
    // Each kind's nodes are a scene of its own under a 3D main scene: the editor opens
    // a scene in its 3D view, the only one that draws textures in 3D, if the scene has
    // more 3D nodes than 2D ones, and it counts no node inside an instanced scene.
    QString resources, nodes;
    int count = 0;
    for (const Kind &k : table) {
        if (kind != k.name && kind != u"all"_s)
            continue;
        const QString dir = kind == k.name ? QString() : k.name + u'/';
        copyTexts(k.name, folder, dir);
        for (const QString &asset : items(k.imported) + items(k.notImported)) {
            if (!QFileInfo::exists(folder + u'/' + dir + asset))
                make(folder + u'/' + dir + asset);
            (items(k.imported).contains(asset) ? fixture.imported : fixture.notImported)
                .append(dir + asset);
        }
        const QString id = QString::number(++count);
        resources += u"[ext_resource path=\"res://%1.tscn\" type=\"PackedScene\" id=%2]\n"_s.arg(
            dir + k.name, id);
        nodes +=
            u"\n[node name=\"%1\" parent=\".\" instance=ExtResource( %2 )]\n"_s.arg(k.name, id);
    }
    if (nodes.isEmpty())
        qFatal("no import fixture of kind %s", qPrintable(kind));
    TestEnv::writeFile(folder + u"/project.godot"_s,
                       "config_version=4\n\n[application]\n\nrun/main_scene=\"res://main.tscn\"\n");
    const QString main = QString::fromUtf8(
        TestEnv::readFile(QStringLiteral(VANTRO_TEST_DATA_DIR "/import/main.tscn")));
    TestEnv::writeFile(folder + u"/main.tscn"_s, main.arg(resources, nodes).toUtf8());
    return fixture;
}

QString ImportFixtures::importBase(const QString &asset)
{
    const QByteArray md5 =
        QCryptographicHash::hash((u"res://"_s + asset).toUtf8(), QCryptographicHash::Md5);
    return u"res://.import/"_s + QFileInfo(asset).fileName() + u'-' +
           QString::fromLatin1(md5.toHex());
}
