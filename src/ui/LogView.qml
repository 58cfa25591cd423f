import QtQuick
import QtQuick.Controls
import Vantro

// The log as one selectable text that follows the log while the window is open.
Sheet {
    id: logWindow
    title: "Log"
    width: 640
    height: 420

    LogText {
        id: logText
        objectName: "logText"
        log: AppModel.log
    }

    Rectangle {
        anchors.fill: parent
        anchors.bottomMargin: buttons.height + 26
        color: Qt.rgba(0, 0, 0, 0.06)

        Label {
            objectName: "emptyLog"
            x: 16
            y: 10
            visible: logText.empty
            text: "The log is empty."
            font.family: "monospace"
            font.pointSize: Math.max(7, Qt.application.font.pointSize - 1)
        }
        // Only the lines in view are laid out, however many the log holds.
        ListView {
            id: lines
            objectName: "logLines"
            anchors.fill: parent
            topMargin: 10
            bottomMargin: 10
            clip: true
            model: logText
            activeFocusOnTab: true
            boundsBehavior: Flickable.StopAtBounds
            ScrollBar.vertical: ScrollBar {
                policy: ScrollBar.AlwaysOn
            }
            // A flood can replace every line between two frames; the reader then
            // stays at the same depth instead of being thrown back to the top.
            property real keptDepth: 0
            function restoreDepth() {
                contentY = originY + keptDepth;
                returnToBounds();
            }
            Connections {
                target: logText
                function onModelAboutToBeReset() {
                    lines.keptDepth = lines.contentY - lines.originY;
                }
                // After the view has laid out the new lines, which it does later.
                function onModelReset() {
                    Qt.callLater(lines.restoreDepth);
                }
            }
            Accessible.role: Accessible.List
            Accessible.name: "Log"
            delegate: TextEdit {
                required property string display
                width: lines.width - 32
                x: 16
                text: display
                readOnly: true
                selectByMouse: true
                wrapMode: TextEdit.Wrap
                textFormat: TextEdit.PlainText
                font.family: "monospace"
                font.pointSize: Math.max(7, Qt.application.font.pointSize - 1)
                color: palette.windowText
                selectionColor: palette.highlight
                selectedTextColor: palette.highlightedText
                Accessible.role: Accessible.StaticText
                Accessible.name: text
            }
        }
    }
    Item {
        id: buttons
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.bottom: parent.bottom
        anchors.margins: 16
        height: doneButton.height
        VButton {
            objectName: "copyButton"
            anchors.left: parent.left
            text: "Copy"
            onClicked: logText.copy()
        }
        VButton {
            id: doneButton
            objectName: "doneButton"
            anchors.right: parent.right
            text: "Done"
            highlighted: true
            onClicked: logWindow.close()
        }
    }
}
