import QtQuick
import QtQuick.Controls
import Vantro

// Secondary text: the palette's own secondary colour, moved only where it would be
// too faint to read on what it sits on (`surface`, the window unless told). It aims
// at 5:1, not 4.5: this text is small, and no pixel of its antialiased strokes is
// drawn at the full colour, so what is drawn reaches 4.5:1 only with that margin.
Label {
    property color surface: palette.window
    color: ViewRules.legible(palette.placeholderText, surface, 5)
    wrapMode: Text.WordWrap
}
