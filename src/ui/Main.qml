import QtQuick
import QtQuick.Controls
import Vantro

ApplicationWindow {
    id: window
    visible: true
    minimumWidth: 560
    minimumHeight: 640
    width: 560
    height: 640
    title: "Vantro 3D"

    Column {
        anchors.centerIn: parent
        spacing: 12

        Label {
            anchors.horizontalCenter: parent.horizontalCenter
            text: AppModel.stateTitle
            font.pixelSize: 20
        }
        Label {
            anchors.horizontalCenter: parent.horizontalCenter
            text: AppModel.progressText
        }
    }
}
