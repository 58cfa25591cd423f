#pragma once

#include "app/appmodel.h"

#include <QByteArray>
#include <QString>

class TestHttpServer;

// What a first Play fetches, served from the loopback server: the game's zip (top
// folder "Zorbit-master") and an engine release (zip and SHA512-SUMS.txt).
struct PlayWorld
{
    // The fake engine that the release holds as its program; empty for one that cannot run.
    QString engine = QStringLiteral("godot.sh");
    QByteArray project = "config_version=5\n\n[application]\n\nconfig/name=\"Zorbit\"\n";
    // Makes the zips bigger, for moments worth interrupting: bytes of noise each.
    qint64 gamePadding = 0;
    qint64 enginePadding = 0;
    // Serves both zips slowly: this many bytes at a time, then a pause.
    int dripBytes = 0;
    int dripDelayMs = 0;

    static constexpr const char *gamePath = "/orrik/Zorbit/archive/refs/heads/master.zip";
    static constexpr const char *enginePath =
        "/releases/4.3-stable/Godot_v4.3-stable_linux.x86_64.zip";

    // Builds both archives under `workDir`, routes them on `server` and returns a
    // configuration pointing at them.
    AppModel::Config serve(TestHttpServer &server, const QString &workDir) const;
};
