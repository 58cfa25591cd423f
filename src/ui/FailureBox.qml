import QtQuick
import QtQuick.Controls
import Vantro

// The report of a game that ended badly, to read and to copy. A long report scrolls
// inside its box, so that "Copy" and what follows stay near.
Rectangle {
    id: box
    objectName: "failureBox"
    readonly property string report: AppModel.failureReport !== undefined
                                     ? AppModel.failureReport : ""

    radius: 10
    color: Qt.rgba(1, 0.58, 0, 0.15)
    implicitHeight: column.implicitHeight + 24

    Column {
        id: column
        anchors.fill: parent
        anchors.margins: 12
        spacing: 8

        FontMetrics {
            id: lines
            font: reportText.font
        }
        ScrollView {
            id: scroller
            width: parent.width
            // Twelve lines at most.
            height: Math.min(reportText.implicitHeight, 12 * lines.lineSpacing + 2)
            ScrollBar.vertical.policy: contentHeight > height ? ScrollBar.AlwaysOn
                                                              : ScrollBar.AlwaysOff
            TextArea {
                id: reportText
                objectName: "reportText"
                text: box.report
                readOnly: true
                selectByMouse: true
                selectByKeyboard: true
                wrapMode: TextEdit.Wrap
                padding: 0
                rightPadding: scroller.ScrollBar.vertical.visible ? 14 : 0
                background: null
                font.family: "monospace"
                font.pointSize: Math.max(7, Qt.application.font.pointSize - 1)
                color: palette.windowText
                selectionColor: ViewRules.legible(palette.highlight, palette.highlightedText, 4.5)
                selectedTextColor: palette.highlightedText
                Accessible.name: "Failure report"
            }
        }
        VButton {
            text: "Copy"
            onClicked: ViewRules.copyToClipboard(box.report)
        }
    }
}
