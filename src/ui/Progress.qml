import QtQuick
import QtQuick.Controls
import Vantro

// The running step's progress: a bar when its share of the whole is known, a spinner
// when it is not. Loaded only while a step runs, so the first frame reads neither type.
Item {
    id: progress
    implicitWidth: ViewRules.progressStyle === "bar" ? 300 : 44
    implicitHeight: ViewRules.progressStyle === "bar" ? bar.implicitHeight : 44

    BusyIndicator {
        objectName: "spinner"
        visible: ViewRules.progressStyle === "spinner"
        running: visible
        anchors.fill: parent
        readonly property color shade: ViewRules.legible(progress.palette.highlight,
                                                         progress.palette.window, 3)
        palette.text: shade
        Accessible.name: AppModel.progressText !== "" ? AppModel.progressText : AppModel.stateTitle
    }
    ProgressBar {
        id: bar
        objectName: "progressBar"
        visible: ViewRules.progressStyle === "bar"
        width: parent.width
        anchors.verticalCenter: parent.verticalCenter
        value: AppModel.progress !== undefined ? AppModel.progress : 0
        Accessible.name: AppModel.stateTitle
    }
}
