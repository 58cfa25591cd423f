import QtQuick
import QtQuick.Controls
import Vantro

// Secondary text: the palette's own secondary colour, moved only where it would be
// too faint to read on what it sits on (`surface`, the window unless told).
Label {
    property color surface: palette.window
    color: ViewRules.legible(palette.placeholderText, surface, 4.5)
    wrapMode: Text.WordWrap
}
