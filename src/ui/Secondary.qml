import QtQuick
import QtQuick.Controls

// Text in the palette's secondary colour, so it stays legible on light and dark.
Label {
    color: palette.placeholderText
    wrapMode: Text.WordWrap
}
