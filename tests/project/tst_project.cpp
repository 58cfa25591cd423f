#include "project/projectinspector.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

// Builds a tree below `base`: "a/" is a folder, "a" an empty file, "a=text" a file
// with that text ("<not UTF-8>" writes bytes that are not, "<fifo>" makes a FIFO,
// "<huge>" a valid text file of 5 MiB), "a->target" a link.
void build(const QString &base, const QStringList &entries)
{
    for (const QString &entry : entries) {
        qsizetype arrow = entry.indexOf(u"->"_s);
        const qsizetype equals = entry.indexOf(u'=');
        if (equals > 0 && arrow > equals)
            arrow = -1; // part of the text
        const qsizetype end = arrow > 0 ? arrow : equals > 0 ? equals : entry.size();
        const QString path = base + u'/' + entry.first(end);
        QVERIFY(QDir().mkpath(entry.endsWith(u'/') ? path : QFileInfo(path).path()));
        if (arrow > 0) {
            QVERIFY(QFile::link(entry.sliced(arrow + 2), path));
        } else if (entry.endsWith(u"=<fifo>"_s)) {
            QCOMPARE(::mkfifo(QFile::encodeName(path).constData(), 0600), 0);
        } else if (!entry.endsWith(u'/')) {
            QFile file(path);
            QVERIFY(file.open(QIODevice::WriteOnly));
            const QString text = equals > 0 ? entry.sliced(equals + 1) : QString();
            file.write(text == u"<not UTF-8>"_s ? QByteArray("\xff\xfe") : text.toUtf8());
            if (text == u"<huge>"_s)
                QVERIFY(file.resize(5 * 1024 * 1024));
        }
    }
}

// "Label: inputs" for each row, as the window shows them.
QStringList shown(const QList<ControlLine> &rows)
{
    QStringList lines;
    for (const ControlLine &row : rows)
        lines.append(row.action + u": "_s + row.inputs);
    return lines;
}

// Godot 3 input events, cut down to the fields that matter here; the fixtures hold
// the full serialisation.
QString key(const QString &code, int physical = 0)
{
    return uR"(Object(InputEventKey,"device":0,"scancode":%1,"physical_scancode":%2,"echo":false))"_s
        .arg(code)
        .arg(physical);
}
QString key(qint64 code, int physical = 0)
{
    return key(QString::number(code), physical);
}
QString button(int index)
{
    return uR"(Object(InputEventJoypadButton,"device":0,"button_index":%1,"pressure":0.0))"_s.arg(
        index);
}
QString motion(int axis, const QString &value)
{
    return uR"(Object(InputEventJoypadMotion,"device":0,"axis":%1,"axis_value":%2,"script":null))"_s
        .arg(axis)
        .arg(value);
}
QString block(const QString &action, const QStringList &events)
{
    return action + u"={\n\"deadzone\": 0.5,\n\"events\": [ "_s + events.join(u"\n, "_s) +
           u"\n ]\n}\n"_s;
}

} // namespace

class TestProject : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void looksUpValues_data();
    void looksUpValues();
    void inspectsSettings_data();
    void inspectsSettings();
    void inspectsRealProjects_data();
    void inspectsRealProjects();
    void parsesControls_data();
    void parsesControls();
    void capturesGroups();
    void findsProjectRoot_data();
    void findsProjectRoot();
    void walksDepthFirstInListingOrder();
    void findsFirstSentence_data();
    void findsFirstSentence();
    void readsNearRoot_data();
    void readsNearRoot();
};

void TestProject::looksUpValues_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QVariant>("value"); // of "a"; invalid for none

    QTest::newRow("raw rest of the line") << u"ab=1\na= \"v\" ;c\n"_s << QVariant(u" \"v\" ;c"_s);
    QTest::newRow("empty value is not none") << u"a=\nb=2"_s << QVariant(QString());
    QTest::newRow("CR LF file is one line") << u"a=1\r\nb=2\r\n"_s << QVariant(u"1\r\nb=2\r\n"_s);
    QTest::newRow("CR LF file, key not first") << u"b=2\r\na=1\r\n"_s << QVariant();
    QTest::newRow("accented equals sign") << u"a=\u0301x\n"_s << QVariant();
}

void TestProject::looksUpValues()
{
    QFETCH(QString, text);
    QFETCH(QVariant, value);

    const std::optional<QString> found = ProjectInspector::value(u"a"_s, text);
    QCOMPARE(found.has_value(), value.isValid());
    QCOMPARE(found.value_or(QString()), value.toString());
}

void TestProject::inspectsSettings_data()
{
    QTest::addColumn<QByteArray>("file"); // project.godot; absent when null
    QTest::addColumn<QString>("name");
    QTest::addColumn<qint64>("configVersion");
    QTest::addColumn<QString>("mainScene");

    const QString zorbit = u"Zorbit"_s;
    QTest::newRow("no project file") << QByteArray() << zorbit << qint64(4) << QString();
    QTest::newRow("quotes and spaces trimmed, inner ones kept")
        << QByteArray("config/name= \" My \"Game\" \"\nrun/main_scene=\"res://Main.tscn\"\n")
        << u"My \"Game"_s << qint64(4) << u"res://Main.tscn"_s;
    QTest::newRow("first occurrence in any section wins")
        << QByteArray("[a]\nconfig/name=\"First\"\n[b]\nconfig/name=\"Second\"\n") << u"First"_s
        << qint64(4) << QString();
    QTest::newRow("commented out and spaced keys do not count")
        << QByteArray(";config/name=\"A\"\nconfig/name =\"B\"\nconfig_version = 5\n") << zorbit
        << qint64(4) << QString();
    QTest::newRow("CR LF file") << QByteArray("config_version=5\r\nconfig/name=\"X\"\r\n") << zorbit
                                << qint64(4) << QString();
    QTest::newRow("not UTF-8") << QByteArray("config_version=5\nconfig/name=\"\xff\"\n") << zorbit
                               << qint64(4) << QString();
    // Files an archive can make that would hang a read or lead out of the game: absent.
    QTest::newRow("link to /dev/zero")
        << QByteArray("->/dev/zero") << zorbit << qint64(4) << QString();
    QTest::newRow("link to a project outside")
        << QByteArray("->" VANTRO_TEST_DATA_DIR "/project/godot4/project.godot") << zorbit
        << qint64(4) << QString();
    QTest::newRow("FIFO") << QByteArray("=<fifo>") << zorbit << qint64(4) << QString();
    QTest::newRow("enormous") << QByteArray("=<huge>") << zorbit << qint64(4) << QString();
    const QList<std::pair<const char *, qint64>> versions{
        {"5", 5}, {"abc", 4}, {"", 4}, {"+5", 5}, {"-3", -3}, {" 5", 4}, {"9223372036854775808", 4},
    };
    for (const auto &[text, version] : versions) {
        QTest::addRow("config_version=%s", text) << QByteArray("config_version=") + text + "\n"
                                                 << zorbit << version << QString();
    }
}

void TestProject::inspectsSettings()
{
    QFETCH(QByteArray, file);
    QFETCH(QString, name);
    QFETCH(qint64, configVersion);
    QFETCH(QString, mainScene);

    QTemporaryDir dir;
    QFile project(dir.path() + u"/project.godot"_s);
    if (file.startsWith("->") || file.startsWith("=<"))
        build(dir.path(), {u"project.godot"_s + QString::fromUtf8(file)});
    else if (!file.isNull())
        QVERIFY(project.open(QIODevice::WriteOnly) && project.write(file) == file.size());
    project.close();

    const ProjectInfo info = ProjectInspector::inspect(dir.path());
    QCOMPARE(info.root, dir.path());
    QCOMPARE(info.name, name);
    QCOMPARE(info.configVersion, configVersion);
    QCOMPARE(info.mainScene, mainScene);
    QVERIFY(!info.hasSubmodules);
}

void TestProject::inspectsRealProjects_data()
{
    QTest::addColumn<QString>("fixture");
    QTest::addColumn<qint64>("configVersion");
    QTest::addColumn<QString>("features");
    QTest::addColumn<QStringList>("controls");

    QTest::newRow("Godot 3")
        << u"godot3"_s << qint64(4) << QString()
        << QStringList{
               u"Accelerate: Up arrow, W, gamepad A, left stick up"_s,
               u"Brake / reverse: Down arrow, S, gamepad B, left stick down"_s,
               u"Steer left: Left arrow, A, left stick left"_s,
               u"Steer right: Right arrow, D, left stick right"_s,
               u"Change camera: Tab, C, gamepad right shoulder"_s,
               u"Select: Space, gamepad Y"_s, // its physical Enter is no "scancode"
           };
    // Godot 4 writes "keycode" fields, so no key is named, and numbers its buttons
    // differently, while the names follow Godot 3's numbering.
    QTest::newRow("Godot 4") << u"godot4"_s << qint64(5)
                             << u"PackedStringArray(\"4.3\", \"Forward Plus\")"_s
                             << QStringList{
                                    u"Accelerate: gamepad A, left stick up"_s,
                                    u"Brake / reverse: gamepad B, left stick down"_s,
                                    u"Steer left: gamepad D-pad down, left stick left"_s,
                                    u"Steer right: gamepad D-pad left, left stick right"_s,
                                    u"Change camera: gamepad button 10"_s,
                                };
}

void TestProject::inspectsRealProjects()
{
    QFETCH(QString, fixture);
    QFETCH(qint64, configVersion);
    QFETCH(QString, features);
    QFETCH(QStringList, controls);

    // Unpacked as in the repository: README and licence at the top, the project below.
    QTemporaryDir repo;
    const QString root = repo.path() + u"/game"_s;
    QVERIFY(QDir().mkpath(root));
    QVERIFY(QFile::copy(QStringLiteral(VANTRO_TEST_DATA_DIR "/project/") + fixture +
                            u"/project.godot"_s,
                        root + u"/project.godot"_s));
    build(
        repo.path(),
        {u"game/.gitmodules/"_s,
         u"README.md=# Zorbit\n![build](https://ci.example/b.svg)\n\nA [3D](https://en.wikipedia.org/wiki/3D) racing game. Made with Godot.\n"_s,
         u"LICENSE=MIT License\n\nPermission is hereby granted, free of charge, to any person\n"_s});

    const ProjectInfo info = ProjectInspector::inspect(root);
    QCOMPARE(info.name, u"Zorbit"_s);
    QCOMPARE(info.configVersion, configVersion);
    QCOMPARE(info.features, features);
    QCOMPARE(info.mainScene,
             fixture == u"godot3"_s ? u"res://scenes/Main.tscn"_s : u"res://scenes/main.tscn"_s);
    QVERIFY(info.hasSubmodules);
    QCOMPARE(info.licenseName, u"MIT License"_s);
    QCOMPARE(info.oneLiner, u"A 3D racing game."_s);
    QCOMPARE(shown(info.controls), controls);
    QSet<QUuid> ids{QUuid()};
    for (const ControlLine &row : info.controls)
        ids.insert(row.id);
    QCOMPARE(ids.size(), info.controls.size() + 1); // fresh and distinct

    // The window reads the rows through the gadgets' properties.
    const QMetaProperty rows = ProjectInfo::staticMetaObject.property(
        ProjectInfo::staticMetaObject.indexOfProperty("controls"));
    const QMetaObject &line = ControlLine::staticMetaObject;
    QStringList read;
    for (const QVariant &row : rows.readOnGadget(&info).toList()) {
        read.append(
            line.property(line.indexOfProperty("action")).readOnGadget(row.constData()).toString() +
            u": "_s +
            line.property(line.indexOfProperty("inputs")).readOnGadget(row.constData()).toString());
    }
    QCOMPARE(read, controls);
}

void TestProject::parsesControls_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QStringList>("rows");

    const QString input = u"[input]\n\n"_s;
    const qint64 up = 16777232;
    QTest::newRow("keys in the order of the file") << input + block(u"ui_up"_s, {key(87), key(up)})
                                                   << QStringList{u"Accelerate: W, Up arrow"_s};
    QTest::newRow("keys once, then buttons and axes every time")
        << input + block(u"ui_up"_s, {motion(1, u"-1.0"_s), button(0), key(87), key(87), button(0),
                                      motion(1, u"-1.0"_s)})
        << QStringList{u"Accelerate: W, gamepad A, gamepad A, left stick up, left stick up"_s};
    QTest::newRow("edges of the key and button tables")
        << input + block(u"ui_select"_s, {key(64), key(65), key(90), key(91), key(97), key(32),
                                          key(16777217), key(16777222), key(16777234), button(5),
                                          button(6), button(15), button(16)})
        << QStringList{
               u"Select: A, Z, Space, Esc, Down arrow, gamepad right shoulder, gamepad button 6, "
               u"gamepad D-pad right, gamepad button 16"_s};
    QTest::newRow("no named input, no row")
        << input + block(u"ui_up"_s, {key(16777238), key(0, 87), key(u"99999999999999999999"_s),
                                      key(u"8\u0667"_s)})
        << QStringList{};
    QTest::newRow("stick directions")
        << input + block(u"ui_left"_s,
                         {motion(0, u"-0.5"_s), motion(0, u"-0.0"_s), motion(1, u"1"_s),
                          motion(3, u"-1.0"_s), motion(0, u"-1.2.3"_s), motion(1, u"-."_s)})
        << QStringList{
               u"Steer left: left stick left, left stick right, left stick down, gamepad axis 3, "
               u"left stick right, left stick down"_s};
    QTest::newRow("rows in the fixed order, other actions ignored")
        << input + block(u"ui_select"_s, {key(32)}) + block(u"ui_accept"_s, {key(16777221)}) +
               block(u"boost"_s, {key(66)}) + block(u"ui_focus_next"_s, {key(16777218)}) +
               block(u"ui_up"_s, {key(87)})
        << QStringList{u"Accelerate: W"_s, u"Change camera: Tab"_s, u"Select: Space"_s};
    QTest::newRow("an action written twice is read as one")
        << input + block(u"ui_up"_s, {key(87)}) + block(u"ui_up"_s, {key(up), key(87)})
        << QStringList{u"Accelerate: W, Up arrow"_s};
    QTest::newRow("blocks outside the input section")
        << block(u"ui_up"_s, {key(87)}) + u"[input_devices]\n"_s + block(u"ui_up"_s, {key(87)}) +
               u"[input] \n"_s + block(u"ui_down"_s, {key(83)})
        << QStringList{};
    QTest::newRow("a header ends an open block")
        << input + u"ui_up={\n"_s + key(87) + u"\n[ "_s + key(up) + u"\n}\n"_s
        << QStringList{u"Accelerate: W"_s};
    QString crlf = input + block(u"ui_up"_s, {key(87)});
    QTest::newRow("CR LF file") << crlf.replace(u"\n"_s, u"\r\n"_s) << QStringList{};
}

void TestProject::parsesControls()
{
    QFETCH(QString, text);
    QFETCH(QStringList, rows);

    QCOMPARE(shown(ProjectInspector::parseControls(text)), rows);
}

void TestProject::capturesGroups()
{
    QCOMPARE(ProjectInspector::captures(u"(\\w)=(\\d+)"_s, u"a=1, b=22"_s),
             (QList<QStringList>{{u"a"_s, u"1"_s}, {u"b"_s, u"22"_s}}));
    // A group that took no part in a match is left out of its list.
    QCOMPARE(ProjectInspector::captures(u"(a)(b)?"_s, u"ab a"_s),
             (QList<QStringList>{{u"a"_s, u"b"_s}, {u"a"_s}}));
    QCOMPARE(ProjectInspector::captures(u"(\\d"_s, u"1"_s), QList<QStringList>{});
}

void TestProject::findsProjectRoot_data()
{
    QTest::addColumn<QStringList>("entries"); // below the temporary folder
    QTest::addColumn<QString>("folder");      // searched, relative to it
    QTest::addColumn<QString>("expected");    // relative to it; null for none

    const QString s = u"s"_s;
    QTest::newRow("the folder itself before deeper ones")
        << QStringList{u"s/a/project.godot"_s, u"s/project.godot"_s} << s << s;
    QTest::newRow("four levels down")
        << QStringList{u"s/x/y/z/project.godot"_s} << s << u"s/x/y/z"_s;
    QTest::newRow("five levels down")
        << QStringList{u"s/a/b/c/d/project.godot"_s} << s << QString();
    QTest::newRow("hidden folders")
        << QStringList{u"s/.cache/project.godot"_s, u"s/a/.b/project.godot"_s} << s << QString();
    QTest::newRow("case-sensitive") << QStringList{u"s/a/Project.godot"_s} << s << QString();
    QTest::newRow("a folder of that name")
        << QStringList{u"s/a/project.godot/"_s} << u"s/"_s << u"s/a"_s;
    QTest::newRow("linked folder not followed")
        << QStringList{u"out/project.godot"_s, u"s/link->../out"_s} << s << QString();
    QTest::newRow("missing folder") << QStringList{} << u"nowhere"_s << QString();
}

void TestProject::findsProjectRoot()
{
    QFETCH(QStringList, entries);
    QFETCH(QString, folder);
    QFETCH(QString, expected);

    QTemporaryDir dir;
    build(dir.path(), entries + QStringList{u"s/"_s});
    const std::optional<QString> root = ProjectInspector::findProjectRoot(dir.filePath(folder));
    QCOMPARE(root.value_or(QString()), expected.isNull() ? QString() : dir.filePath(expected));
}

void TestProject::walksDepthFirstInListingOrder()
{
    QTemporaryDir dir;
    for (int i = 0; i < 20; ++i)
        build(dir.path(), {u"branch%1/"_s.arg(i)});
    const QStringList listed =
        QDir(dir.path()).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);

    // The deepest allowed match in the first listed branch beats the shallow ones of
    // all the others: depth first, and nothing is sorted.
    build(dir.path(), {listed.first() + u"/a/b/project.godot"_s});
    for (const QString &branch : listed.sliced(1))
        build(dir.path(), {branch + u"/project.godot"_s});
    QCOMPARE(ProjectInspector::findProjectRoot(dir.path()),
             dir.path() + u'/' + listed.first() + u"/a/b"_s);
}

void TestProject::findsFirstSentence_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("sentence");

    QTest::newRow("after heading, badge and blank line")
        << u"# Zorbit\n![badge](b.svg)\n\nA fast racing game. Written in GDScript.\n"_s
        << u"A fast racing game."_s;
    QTest::newRow("links reduced to their text before the cut")
        << u"See the [wiki. Tracks](https://example.org/w.html) too"_s << u"See the wiki."_s;
    QTest::newRow("no full stop added")
        << u"See the [wiki](https://example.org/w) for tracks"_s << u"See the wiki for tracks"_s;
    // Only a line's first character tells a badge, so a linked badge is prose.
    QTest::newRow("linked badge")
        << u"[![b](https://ci.example/b.svg)](https://ci.example)\nA game."_s
        << u"![b](https://ci.example)"_s;
    QTest::newRow("final full stop kept") << u"Race the clock."_s << u"Race the clock."_s;
    QTest::newRow("only headings, lists and rules")
        << u"# Title\n- item\n---\n!img\n \t\n"_s << QString();
    QTest::newRow("horizontal space of any kind trimmed")
        << u"\u00a0\u3000# Zorbit\n\t Fast. Fun \t"_s << u"Fast."_s;
    QTest::newRow("a wrapped sentence is cut at the line's end")
        << u"A game that\nwraps. Here"_s << u"A game that"_s;
    QTest::newRow("CR LF README starting with a heading")
        << u"# Zorbit\r\n\r\nA game. Yes\r\n"_s << QString();
    QTest::newRow("CR LF README runs on")
        << u"Fast racing\r\nin space. Yes\r\n"_s << u"Fast racing\r\nin space."_s;
}

void TestProject::findsFirstSentence()
{
    QFETCH(QString, text);
    QFETCH(QString, sentence);

    QCOMPARE(ProjectInspector::firstSentence(text), sentence);
}

void TestProject::readsNearRoot_data()
{
    QTest::addColumn<QStringList>("entries"); // the project lies in repo/game
    QTest::addColumn<QString>("readme");
    QTest::addColumn<QString>("licence");

    const QString none = u"No licence file found in the repository"_s;
    const QString mit = u"PERMISSION IS HEREBY GRANTED, FREE OF CHARGE, to any person"_s;
    const QString apache = u"Apache License\nVersion 2.0, January 2004"_s;
    QTest::newRow("nothing") << QStringList{u"repo/README.rst=x"_s, u"repo/LICENCE="_s + mit}
                             << QString() << none;
    QTest::newRow("the project's own first")
        << QStringList{u"repo/README.md=top"_s, u"repo/game/README.txt=own"_s,
                       u"repo/LICENSE="_s + mit, u"repo/game/LICENSE.txt=Zlib license"_s}
        << u"own"_s << u"See LICENSE.txt: Zlib license"_s;
    QTest::newRow("then the repository's")
        << QStringList{u"repo/readme.md=top"_s, u"repo/README.txt=txt"_s,
                       u"repo/UNLICENSE=This is free and "
                       u"unencumbered software released into "
                       u"the public domain."_s}
        << u"top"_s << u"Unlicense (public domain)"_s;
    QTest::newRow("empty files count")
        << QStringList{u"repo/game/README.md"_s, u"repo/game/README=x"_s, u"repo/game/LICENSE"_s,
                       u"repo/game/COPYING="_s + mit}
        << QString() << u"See LICENSE: "_s;
    QTest::newRow("folders and text that is not UTF-8 do not")
        << QStringList{u"repo/game/README.md/"_s,
                       u"repo/game/readme.md=<not UTF-8>"_s,
                       u"repo/game/README=x"_s,
                       u"repo/game/LICENSE/"_s,
                       u"repo/game/LICENSE.md=<not UTF-8>"_s,
                       u"repo/game/COPYING=GNU GENERAL PUBLIC LICENSE"_s}
        << u"x"_s << u"GNU GPL"_s;
    QTest::newRow("links, FIFOs and enormous files do not")
        << QStringList{u"repo/game/README.md->/dev/zero"_s,
                       u"repo/game/readme.md=<fifo>"_s,
                       u"repo/game/README=<huge>"_s,
                       u"repo/outside.txt=outside"_s,
                       u"repo/game/README.txt->../outside.txt"_s,
                       u"repo/README.md=top"_s,
                       u"repo/game/LICENSE->/dev/zero"_s,
                       u"repo/game/LICENSE.md=<fifo>"_s,
                       u"repo/game/LICENSE.txt=<huge>"_s,
                       u"repo/game/COPYING->../LICENSE"_s,
                       u"repo/LICENSE="_s + apache}
        << u"top"_s << u"Apache License 2.0"_s;
    QTest::newRow("phrase table order, not file order")
        << QStringList{u"repo/LICENSE="_s + apache + u'\n' + mit} << QString() << u"MIT License"_s;
    QTest::newRow("Apache") << QStringList{u"repo/LICENSE="_s + apache} << QString()
                            << u"Apache License 2.0"_s;
    QTest::newRow("unknown licence: first non-empty line as written")
        << QStringList{u"repo/game/COPYING=\n\n  BSD 3-Clause License\n\nCopyright (c) 2023"_s}
        << QString() << u"See COPYING:   BSD 3-Clause License"_s;
}

void TestProject::readsNearRoot()
{
    QFETCH(QStringList, entries);
    QFETCH(QString, readme);
    QFETCH(QString, licence);

    QTemporaryDir dir;
    build(dir.path(), entries + QStringList{u"repo/game/"_s});
    const QString root = dir.path() + u"/repo/game"_s;
    QCOMPARE(ProjectInspector::readReadme(root), readme);
    QCOMPARE(ProjectInspector::licenseSummary(root), licence);
}

QTEST_GUILESS_MAIN(TestProject)
#include "tst_project.moc"
