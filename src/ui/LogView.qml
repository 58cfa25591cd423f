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
        target: textArea
    }

    Rectangle {
        anchors.fill: parent
        anchors.bottomMargin: buttons.height + 26
        color: Qt.rgba(0, 0, 0, 0.06)

        ScrollView {
            id: scroller
            anchors.fill: parent
            ScrollBar.vertical.policy: ScrollBar.AlwaysOn
            contentWidth: availableWidth

            TextEdit {
                id: textArea
                objectName: "logArea"
                width: scroller.availableWidth
                leftPadding: 16
                rightPadding: 16
                topPadding: 10
                bottomPadding: 10
                readOnly: true
                selectByMouse: true
                selectByKeyboard: true
                activeFocusOnTab: true
                wrapMode: TextEdit.Wrap
                textFormat: TextEdit.PlainText
                font.family: "monospace"
                font.pointSize: Math.max(7, Qt.application.font.pointSize - 1)
                color: palette.windowText
                selectionColor: palette.highlight
                selectedTextColor: palette.highlightedText
                Accessible.role: Accessible.StaticText
                Accessible.name: "Log"
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
