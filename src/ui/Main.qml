import QtQuick
import QtQuick.Controls

ApplicationWindow {
    id: window
    visible: true
    minimumWidth: 560
    minimumHeight: 640
    title: "Vantro 3D"

    Label {
        anchors.centerIn: parent
        text: "Not downloaded"
    }
}
