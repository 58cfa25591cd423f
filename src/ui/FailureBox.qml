import QtQuick
import QtQuick.Controls
import Vantro

// The report of a game that ended badly, to read and to copy.
Rectangle {
    id: box
    property string report

    radius: 10
    color: Qt.rgba(1, 0.58, 0, 0.15)
    implicitHeight: column.implicitHeight + 24

    Column {
        id: column
        anchors.fill: parent
        anchors.margins: 12
        spacing: 8

        TextEdit {
            id: reportText
            width: parent.width
            text: box.report
            readOnly: true
            selectByMouse: true
            selectByKeyboard: true
            wrapMode: TextEdit.Wrap
            font.family: "monospace"
            font.pointSize: Math.max(7, Qt.application.font.pointSize - 1)
            color: palette.windowText
            selectionColor: palette.highlight
            selectedTextColor: palette.highlightedText
            Accessible.role: Accessible.StaticText
            Accessible.name: text
        }
        VButton {
            text: "Copy"
            onClicked: ViewRules.copyToClipboard(box.report)
        }
    }
}
