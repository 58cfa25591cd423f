import QtQuick

// No QtQuick.Controls, so no style either: loading the controls and Fusion is a choice
// the program made, and the floor is what any Qt Quick window pays. The size is the
// program's main window's, as the software renderer's work grows with the pixels.
Window {
    visible: true
    width: 560
    height: 720
    title: "Bare window"

    Text {
        anchors.centerIn: parent
        text: "A bare Qt Quick window"
    }
}
