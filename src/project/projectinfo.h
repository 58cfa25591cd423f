#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QUuid>
#include <QVariantList>

/** @brief One row of the controls list: a player-facing action and what drives it. */
struct ControlLine
{
    Q_GADGET
    Q_PROPERTY(QString action MEMBER action)
    Q_PROPERTY(QString inputs MEMBER inputs)

public:
    QUuid id; // made fresh for every row; only the list view's identity
    QString action;
    QString inputs; // joined with ", "
};

/**
 * @brief What the launcher read from an unpacked Godot project.
 *
 * Filled by ProjectInspector::inspect; a default-constructed value is "nothing read
 * yet", not the defaults of an empty project file.
 */
struct ProjectInfo
{
    Q_GADGET
    Q_PROPERTY(QString root MEMBER root)
    Q_PROPERTY(QString name MEMBER name)
    Q_PROPERTY(qint64 configVersion MEMBER configVersion)
    Q_PROPERTY(QString features MEMBER features)
    Q_PROPERTY(QString mainScene MEMBER mainScene)
    Q_PROPERTY(bool hasSubmodules MEMBER hasSubmodules)
    Q_PROPERTY(bool dotNet MEMBER dotNet)
    Q_PROPERTY(QString licenseName MEMBER licenseName)
    Q_PROPERTY(QString oneLiner MEMBER oneLiner)
    // QML reads the rows as a plain list of ControlLine gadgets.
    Q_PROPERTY(QVariantList controls READ controlList)

public:
    QString root; // the folder that holds project.godot
    QString name;
    qint64 configVersion = 4;
    QString features;
    QString mainScene;
    bool hasSubmodules = false;
    // Signs of C# (.NET): a [mono] section in project.godot, or a ".csproj" or ".sln"
    // file beside it. They decide for Godot 3, which names no features.
    bool dotNet = false;
    QString licenseName;
    QString oneLiner;
    QList<ControlLine> controls;

    QVariantList controlList() const
    {
        QVariantList list;
        list.reserve(controls.size());
        for (const ControlLine &line : controls)
            list.append(QVariant::fromValue(line));
        return list;
    }
};
