import QtQuick
import QtQuick.Controls

// The bare window with one control of the program's style: what loading Qt Quick
// Controls and Fusion costs before the program draws anything of its own.
Window {
    visible: true
    width: 560
    height: 720
    title: "Bare window with a button"

    Button {
        anchors.centerIn: parent
        text: "A bare Qt Quick window"
    }
}
