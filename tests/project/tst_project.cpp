#include "project/projectinspector.h"
#include "testenv.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {
// "Label: inputs" for each row, as the window shows them, " | " between rows.
QString shown(const QList<ControlLine> &rows)
{
    QStringList lines;
    for (const ControlLine &row : rows)
        lines.append(row.action + u": "_s + row.inputs);
    return lines.join(u" | "_s);
}

// Godot 3 input events, cut down to the fields that matter here; the fixtures hold
// the full serialisation.
QString key(const QString &code, int physical = 0)
{
    return uR"(Object(InputEventKey,"device":0,"scancode":%1,"physical_scancode":%2,"echo":false))"_s
        .arg(code)
        .arg(physical);
}
QString key(qint64 code)
{
    return key(QString::number(code));
}
// A Godot 4 key event: the engine matches on the first of its three codes that is set.
QString key4(qint64 keycode, qint64 physical = 0, qint64 label = 0)
{
    return uR"(Object(InputEventKey,"device":-1,"keycode":%1,"physical_keycode":%2,"key_label":%3,"unicode":0,"location":0,"echo":false,"script":null))"_s
        .arg(keycode)
        .arg(physical)
        .arg(label);
}
QString mouse4(int index)
{
    return uR"(Object(InputEventMouseButton,"device":-1,"position":Vector2(0, 0),"button_index":%1,"pressed":true,"script":null))"_s
        .arg(index);
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
    void inspectsSettings_data()
    {
        QTest::addColumn<QByteArray>("file"); // project.godot; "->", "=<": as TestEnv::build
        QTest::addColumn<QString>("beside");  // entries beside it, as TestEnv::build
        QTest::addColumn<QString>("read");    // name and config_version, then signs of C#

        QTest::newRow("no project file") << QByteArray() << QString() << u"Zorbit 4"_s;
        QTest::newRow("quotes and spaces trimmed, inner ones kept")
            << QByteArray("config/name= \" My \"Game\" \"\nconfig_version=+5\n") << QString()
            << u"My \"Game 5"_s;
        QTest::newRow("first occurrence in any section wins")
            << QByteArray(
                   "[a]\nconfig/name=\"First\"\n[b]\nconfig/name=\"Second\"\nconfig_version=-3")
            << QString() << u"First -3"_s;
        QTest::newRow("commented out and spaced keys do not count")
            << QByteArray(";config/name=\"A\"\nconfig/name =\"B\"\nconfig_version = 5\n")
            << QString() << u"Zorbit 4"_s;
        QTest::newRow("not a number")
            << QByteArray("config_version= 5") << QString() << u"Zorbit 4"_s;
        QTest::newRow("not UTF-8")
            << QByteArray("config_version=5\nconfig/name=\"\xff\"\n") << QString() << u"Zorbit 4"_s;
        // Files an archive can make that would hang a read or lead out of the game: absent.
        QTest::newRow("link to /dev/zero")
            << QByteArray("->/dev/zero") << QString() << u"Zorbit 4"_s;
        QTest::newRow("FIFO") << QByteArray("=<fifo>") << QString() << u"Zorbit 4"_s;
        QTest::newRow("enormous") << QByteArray("=<huge>") << QString() << u"Zorbit 4"_s;
        // Godot 3 names no features, so its C# projects are known by what they leave.
        QTest::newRow("a [mono] section")
            << QByteArray("config_version=4\n[mono]\nproject/assembly_name=\"Zorbit\"\n")
            << QString() << u"Zorbit 4 .NET"_s;
        QTest::newRow("a C# project beside")
            << QByteArray() << u"Kart.csproj"_s << u"Zorbit 4 .NET"_s;
        QTest::newRow("a C# solution beside")
            << QByteArray() << u"Kart.sln"_s << u"Zorbit 4 .NET"_s;
        QTest::newRow("no sign of C#: a comment, a value, deeper files, a folder, links")
            << QByteArray(";[mono]\nconfig/name=\"[mono]\"\n")
            << u"src/Kart.csproj | Kart.sln/ | Kart.csproj->Notes.txt | Notes.txt | "
               u"Old.sln->/dev/null"_s
            << u"[mono] 4"_s;
    }
    void inspectsSettings()
    {
        QFETCH(QByteArray, file);
        QFETCH(QString, beside);
        QFETCH(QString, read);
        QTemporaryDir dir;
        TestEnv::build(dir.path(), items(beside));
        if (file.startsWith("->") || file.startsWith("=<"))
            TestEnv::build(dir.path(), {u"project.godot"_s + QString::fromUtf8(file)});
        else if (!file.isNull())
            TestEnv::writeFile(dir.path() + u"/project.godot"_s, file);
        const ProjectInfo info = ProjectInspector::inspect(dir.path());
        QCOMPARE(info.name + u' ' + QString::number(info.configVersion) +
                     (info.dotNet ? u" .NET"_s : QString()),
                 read);
    }

    void inspectsRealProjects_data()
    {
        QTest::addColumn<QString>("features");
        QTest::addColumn<QString>("controls");

        // Its physical Enter is no "scancode", so Select shows no Enter.
        QTest::newRow("godot3")
            << QString()
            << u"Accelerate: Up arrow, W, gamepad A, left stick up | Brake / reverse: Down arrow, "
               u"S, gamepad B, left stick down | Steer left: Left arrow, A, left stick left | "
               u"Steer right: Right arrow, D, left stick right | Change camera: Tab, C, gamepad "
               u"right shoulder | Select: Space, gamepad Y"_s;
        // Arrows by "keycode" and letters by "physical_keycode", each with the other 0.
        QTest::newRow("godot4")
            << u"PackedStringArray(\"4.3\", \"Forward Plus\")"_s
            << u"Accelerate: Up arrow, W, gamepad A, left stick up | Brake / reverse: Down arrow, "
               u"S, gamepad B, left stick down | Steer left: Left arrow, A, gamepad D-pad left, "
               u"left stick left | Steer right: Right arrow, D, gamepad D-pad right, left stick "
               u"right | Change camera: Tab, C, gamepad right shoulder"_s;
    }
    void inspectsRealProjects()
    {
        QFETCH(QString, features);
        QFETCH(QString, controls);

        // Unpacked as in the repository: README and licence at the top, the project below.
        QTemporaryDir repo;
        const QString fixture = QStringLiteral(VANTRO_TEST_DATA_DIR "/project/") +
                                QString::fromLatin1(QTest::currentDataTag()) + u"/project.godot"_s;
        TestEnv::build(
            repo.path(),
            {u"game/project.godot="_s + QString::fromUtf8(TestEnv::readFile(fixture)),
             u"game/.gitmodules/"_s,
             u"README.md=# Zorbit\n![build](https://ci.example/b.svg)\n\nA "
             u"[3D](https://en.wikipedia.org/wiki/3D) racing game. Made with Godot.\n"_s,
             u"LICENSE=MIT License\n\nPermission is hereby granted, free of charge\n"_s});

        const ProjectInfo info = ProjectInspector::inspect(repo.path() + u"/game"_s);
        QCOMPARE(info.name, u"Zorbit"_s);
        QCOMPARE(info.configVersion, features.isEmpty() ? 4 : 5);
        QCOMPARE(info.features, features);
        QVERIFY(info.hasSubmodules);
        QCOMPARE(info.licenseName, u"MIT License"_s);
        QCOMPARE(info.oneLiner, u"A 3D racing game."_s);
        QCOMPARE(shown(info.controls), controls);
    }

    void parsesControls_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("rows");

        const QString input = u"[input]\n\n"_s;
        const qint64 up = 16777232;
        QTest::newRow("keys once, in the order of the file, then buttons and axes every time")
            << input + block(u"ui_up"_s, {motion(1, u"-1.0"_s), button(0), key(87), key(up),
                                          key(87), button(0), motion(1, u"-1.0"_s)})
            << u"Accelerate: W, Up arrow, gamepad A, gamepad A, left stick up, left stick up"_s;
        QTest::newRow("edges of the key and button tables")
            << input + block(u"ui_select"_s, {key(64), key(65), key(90), key(91), key(97), key(32),
                                              key(16777217), key(16777222), key(16777234),
                                              button(5), button(6), button(15), button(16)})
            << u"Select: A, Z, Space, Esc, Down arrow, gamepad right shoulder, gamepad button 6, "
               u"gamepad D-pad right, gamepad button 16"_s;
        QTest::newRow("no named input, no row")
            << input + block(u"ui_up"_s, {key(16777238), key(u"0"_s, 87),
                                          key(u"99999999999999999999"_s), key(u"8\u0667"_s)})
            << QString();
        QTest::newRow("stick directions")
            << input + block(u"ui_left"_s,
                             {motion(0, u"-0.5"_s), motion(0, u"-0.0"_s), motion(1, u"1"_s),
                              motion(3, u"-1.0"_s), motion(0, u"-1.2.3"_s), motion(1, u"-."_s)})
            << u"Steer left: left stick left, left stick right, left stick down, gamepad axis 3, "
               u"left stick right, left stick down"_s;
        QTest::newRow("rows in the fixed order, other actions ignored, a repeat read as one")
            << input + block(u"ui_select"_s, {key(32)}) + block(u"ui_accept"_s, {key(16777221)}) +
                   block(u"boost"_s, {key(66)}) + block(u"ui_focus_next"_s, {key(16777218)}) +
                   block(u"ui_up"_s, {key(87)}) + block(u"ui_up"_s, {key(up), key(87)})
            << u"Accelerate: W, Up arrow | Change camera: Tab | Select: Space"_s;
        const QString godot4 = u"config_version=5\n"_s + input;
        QTest::newRow("Godot 4 keys: keycode, else physical, else label, in Godot 4's numbers")
            << godot4 + block(u"ui_select"_s,
                              {key4(4194305), key4(0, 87), key4(0, 0, 65), key4(83, 68), key4(0),
                               key4(16777217), key(90), key4(4194306), key4(4194309), key4(4194310),
                               key4(4194319), key4(4194320), key4(4194321), key4(4194322),
                               key4(4194323), key4(32)})
            << u"Select: Esc, W, A, S, Tab, Enter, Left arrow, Up arrow, Right arrow, Down arrow, "
               u"Space"_s;
        QTest::newRow("Godot 4 buttons; a mouse button is none")
            << u"config_version=6\n"_s + input +
                   block(u"ui_up"_s, {button(3), button(4), button(8), button(9), button(10),
                                      button(11), button(14), button(15), mouse4(1)})
            << u"Accelerate: gamepad Y, gamepad button 4, gamepad button 8, gamepad left shoulder, "
               u"gamepad right shoulder, gamepad D-pad up, gamepad D-pad right, gamepad button 15"_s;
        QTest::newRow("Godot 3 reads scancodes and Godot 3's buttons only")
            << u"config_version=4\n"_s + input +
                   block(u"ui_up"_s, {key4(87), key(65), button(9), mouse4(1)})
            << u"Accelerate: A, gamepad button 9, gamepad B"_s;
        QTest::newRow("blocks outside the input section")
            << block(u"ui_up"_s, {key(87)}) + u"[input_devices]\n"_s +
                   block(u"ui_up"_s, {key(87)}) + u"[input] \n"_s + block(u"ui_down"_s, {key(83)})
            << QString();
    }
    void parsesControls()
    {
        QFETCH(QString, text);
        QFETCH(QString, rows);
        QCOMPARE(shown(ProjectInspector::parseControls(text)), rows);
    }

    void findsProjectRoot_data()
    {
        QTest::addColumn<QString>("entries");  // below the temporary folder; "s" is searched
        QTest::addColumn<QString>("expected"); // relative to it; empty for none

        QTest::newRow("the folder itself before deeper ones")
            << u"s/a/project.godot | s/project.godot"_s << u"s"_s;
        QTest::newRow("four levels down") << u"s/x/y/z/project.godot"_s << u"s/x/y/z"_s;
        QTest::newRow("five levels down") << u"s/a/b/c/d/project.godot"_s << QString();
        QTest::newRow("hidden folders, other case")
            << u"s/.cache/project.godot | s/a/.b/project.godot | s/a/Project.godot"_s << QString();
        QTest::newRow("a folder of that name") << u"s/a/project.godot/"_s << u"s/a"_s;
        QTest::newRow("linked folder not followed")
            << u"out/project.godot | s/link->../out"_s << QString();
        QTest::newRow("missing folder") << u"x/"_s << QString();
    }
    void findsProjectRoot()
    {
        QFETCH(QString, entries);
        QFETCH(QString, expected);
        QTemporaryDir dir;
        TestEnv::build(dir.path(), items(entries));
        const auto root = ProjectInspector::findProjectRoot(dir.filePath(u"s"_s));
        QCOMPARE(root.value_or(QString()), expected.isEmpty() ? QString() : dir.filePath(expected));
    }

    void findsFirstSentence_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("sentence");

        QTest::newRow("after heading, badge and blank line")
            << u"# Zorbit\n![badge](b.svg)\n\nA fast racing game. Written in GDScript.\n"_s
            << u"A fast racing game."_s;
        QTest::newRow("links reduced to their text before the cut")
            << u"See the [wiki. Tracks](https://example.org/w.html) too"_s << u"See the wiki."_s;
        // Only a line's first character tells a badge, so a linked badge is prose.
        QTest::newRow("linked badge")
            << u"[![b](https://ci.example/b.svg)](https://ci.example)\nA game."_s
            << u"![b](https://ci.example)"_s;
        QTest::newRow("only headings, lists and rules")
            << u"# Title\n- item\n---\n!img\n \t\n"_s << QString();
        QTest::newRow("horizontal space of any kind trimmed")
            << u"\u00a0\u3000# Zorbit\n\t Fast. Fun \t"_s << u"Fast."_s;
        QTest::newRow("a wrapped sentence is cut at the line's end")
            << u"A game that\nwraps. Here"_s << u"A game that"_s;
    }
    void findsFirstSentence()
    {
        QFETCH(QString, text);
        QFETCH(QString, sentence);
        QCOMPARE(ProjectInspector::firstSentence(text), sentence);
    }

    void readsNearRoot_data()
    {
        QTest::addColumn<QString>("entries"); // the project lies in repo/game
        QTest::addColumn<QString>("readme");
        QTest::addColumn<QString>("licence");

        const QString mit = u"PERMISSION IS HEREBY GRANTED, FREE OF CHARGE, to any person"_s;
        const QString apache = u"Apache License\nVersion 2.0, January 2004"_s;
        QTest::newRow("nothing") << u"repo/README.rst=x | repo/LICENCE="_s + mit << QString()
                                 << u"No licence file found in the repository"_s;
        QTest::newRow("the project's own first")
            << u"repo/README.md=top | repo/game/README.txt=own | repo/LICENSE="_s + mit +
                   u" | repo/game/LICENSE.txt=Zlib license"_s
            << u"own"_s << u"See LICENSE.txt: Zlib license"_s;
        QTest::newRow("then the repository's")
            << u"repo/readme.md=top | repo/README.txt=txt | repo/UNLICENSE=This is free and "
               u"unencumbered software released into the public domain."_s
            << u"top"_s << u"Unlicense (public domain)"_s;
        QTest::newRow("empty files count")
            << u"repo/game/README.md | repo/game/README=x | repo/game/LICENSE | "
               u"repo/game/COPYING="_s +
                   mit
            << QString() << u"See LICENSE: "_s;
        QTest::newRow("folders and text that is not UTF-8 do not")
            << u"repo/game/README.md/ | repo/game/readme.md=<not UTF-8> | repo/game/README=x | "
               u"repo/game/LICENSE/ | repo/game/LICENSE.md=<not UTF-8> | "
               u"repo/game/COPYING=GNU GENERAL PUBLIC LICENSE"_s
            << u"x"_s << u"GNU GPL"_s;
        QTest::newRow("links, FIFOs and enormous files do not")
            << u"repo/game/README.md->/dev/zero | repo/game/readme.md=<fifo> | "
               u"repo/game/README=<huge> | repo/outside.txt=outside | "
               u"repo/game/README.txt->../outside.txt | repo/README.md=top | "
               u"repo/game/LICENSE->/dev/zero | repo/game/LICENSE.md=<fifo> | "
               u"repo/game/LICENSE.txt=<huge> | repo/game/COPYING->../LICENSE | repo/LICENSE="_s +
                   apache
            << u"top"_s << u"Apache License 2.0"_s;
        QTest::newRow("unknown licence: first non-empty line as written")
            << u"repo/game/COPYING=\n\n  BSD 3-Clause License\n\nCopyright (c) 2023"_s << QString()
            << u"See COPYING:   BSD 3-Clause License"_s;
    }
    void readsNearRoot()
    {
        QFETCH(QString, entries);
        QFETCH(QString, readme);
        QFETCH(QString, licence);
        QTemporaryDir dir;
        TestEnv::build(dir.path(), items(entries) << u"repo/game/"_s);
        const QString root = dir.path() + u"/repo/game"_s;
        QCOMPARE(ProjectInspector::readReadme(root), readme);
        QCOMPARE(ProjectInspector::licenseSummary(root), licence);
    }
};

QTEST_GUILESS_MAIN(TestProject)
#include "tst_project.moc"
