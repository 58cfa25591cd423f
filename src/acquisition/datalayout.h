#pragma once

#include <QString>
#include <QStringList>

/**
 * @brief Where everything the launcher keeps lies: one value, built once from the
 * base folder and handed to whoever needs a path.
 *
 * Every name our code creates in the base folder is spelled here and nowhere else,
 * so what a crash may leave behind (`leftovers`) is exactly what the code makes.
 */
class DataLayout
{
public:
    /** From the desktop's data folder ($XDG_DATA_HOME, else ~/.local/share). */
    static DataLayout fromEnvironment();
    /** With `dataHome` standing in for the desktop's data folder. */
    explicit DataLayout(QString dataHome);

    /** The desktop's data folder, where Godot keeps the game's saves too. */
    const QString &dataHome() const { return m_dataHome; }
    /** dataHome/"Vantro 3D": everything the launcher installs. */
    const QString &base() const { return m_base; }

    QString game() const { return in(u"Game"); }
    /** Where a downloaded game is unpacked and checked before it becomes `game`. */
    QString gameStaging() const { return in(u"GameStaging"); }
    /** The game being replaced, for the moment of the swap. */
    QString gameAside() const { return in(u"Game.old"); }
    /** The game an update set aside, put back if the new one cannot be installed. */
    QString previousGame() const { return in(u"Game.previous"); }
    QString engines() const { return in(u"Engine"); }
    /** The engines a reinstall set aside, put back if a new one cannot be installed. */
    QString previousEngines() const { return in(u"Engine.previous"); }
    /** engines/<version>: one unpacked build. */
    QString engine(const QString &version) const;
    QString engineUnpacking(const QString &version) const
    {
        return engine(version) + u".unpacking";
    }
    QString engineAside(const QString &version) const { return engine(version) + u".old"; }
    /** Written once the game's import has completed. */
    QString marker() const { return in(u"imported.marker"); }
    QString previousMarker() const { return in(u"imported.marker.previous"); }
    /** Which game is installed in `game` (see GameVersion), written after each install. */
    QString gameVersion() const { return in(u"game.version"); }
    QString previousGameVersion() const { return in(u"game.version.previous"); }
    /** Held by the launcher that works on this folder. Inside the folder and never
     *  removed, so that "Remove everything" cannot let a second launcher in. */
    QString lock() const { return in(u".lock"); }
    /** What "Remove everything" is taking away, until it is gone. */
    QString removal() const { return in(u"Removing"); }
    /** Godot's own save folder for a project of this name: read, never written. */
    QString saves(const QString &projectName) const;

    /** What a launcher killed half-way may leave: staging and set-aside folders of
     *  swaps, for the engine builds in `versions`. Never the previous copies. */
    QStringList leftovers(const QStringList &versions) const;

    bool operator==(const DataLayout &) const = default;

private:
    QString in(QStringView name) const { return m_base + u'/' + name; }

    QString m_dataHome;
    QString m_base;
};
