import QtQuick
import QtQuick.Controls
import Vantro

// The log as one selectable text that follows the log while the window is open.
// Only the lines in view are laid out; one item over them takes the pointer and the
// keys and keeps the selection in the log's own terms (LogText), so that it spans
// lines out of view and holds while lines come and go.
Sheet {
    id: logWindow
    title: "Log"
    width: 640
    height: 420

    LogText {
        id: logText
        objectName: "logText"
        log: AppModel.log
        textItem: reader
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
            font: reader.font
        }
        ListView {
            id: lines
            objectName: "logLines"
            anchors.fill: parent
            topMargin: 10
            bottomMargin: 10
            clip: true
            model: logText
            // A flood that replaces every line between two frames makes the view
            // start over: it then refills the lines it had instead of making new ones,
            // so that a frame costs the same whatever the flood's pace.
            reuseItems: true
            boundsBehavior: Flickable.StopAtBounds
            ScrollBar.vertical: ScrollBar {
                policy: lines.contentHeight > lines.height ? ScrollBar.AlwaysOn
                                                           : ScrollBar.AlwaysOff
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
            delegate: TextEdit {
                required property string display
                required property int selectionFrom
                required property int selectionTo
                required property int caret
                width: lines.width - 32
                x: 16
                text: display
                readOnly: true
                activeFocusOnPress: false
                wrapMode: TextEdit.Wrap
                textFormat: TextEdit.PlainText
                font: reader.font
                color: logWindow.palette.windowText
                selectionColor: reader.selectionColor
                selectedTextColor: logWindow.palette.highlightedText
                cursorVisible: caret >= 0 && reader.activeFocus
                Accessible.ignored: true
                onSelectionFromChanged: showSelection()
                onSelectionToChanged: showSelection()
                onCaretChanged: showSelection()
                Component.onCompleted: showSelection()
                // Its new line's selection, which may hold the same numbers as the old.
                ListView.onReused: showSelection()
                function showSelection() {
                    if (selectionFrom >= 0 && selectionTo > selectionFrom) {
                        // The caret ends the selection on its own line.
                        if (caret === selectionFrom)
                            select(selectionTo, selectionFrom);
                        else
                            select(selectionFrom, selectionTo);
                    } else {
                        deselect();
                        if (caret >= 0)
                            cursorPosition = caret;
                    }
                }
            }
        }

        // Pointer and keys for the whole text; to a screen reader, the text itself.
        Item {
            id: reader
            objectName: "logReader"
            anchors.fill: lines
            anchors.rightMargin: lines.ScrollBar.vertical.visible ? lines.ScrollBar.vertical.width : 0
            focus: true
            activeFocusOnTab: true
            property font font: Qt.font({
                family: "monospace",
                pointSize: Math.max(7, Qt.application.font.pointSize - 1)
            })
            readonly property color selectionColor:
                ViewRules.legible(logWindow.palette.highlight, logWindow.palette.highlightedText, 4.5)
            // Read by the screen reader's text interface.
            readonly property string text: logText.shownText
            readonly property int selectionStart: logText.selectionStart
            readonly property int selectionEnd: logText.selectionEnd
            readonly property int cursorPosition: logText.cursorPosition
            Accessible.role: Accessible.EditableText
            Accessible.name: "Log"
            Accessible.readOnly: true
            Accessible.multiLine: true
            Accessible.selectableText: true

            Keys.onPressed: event => {
                const page = Math.max(1, Math.floor(lines.height / 16) - 1);
                event.accepted = logText.handleKey(event.key, event.modifiers, page);
                if (event.accepted)
                    lines.positionViewAtIndex(logText.cursorLine, ListView.Contain);
            }

            // The line and column under a point of this item; above or below the
            // lines, the log's start or end.
            function pointAt(x, y) {
                const contentY = lines.contentY + Math.max(0, Math.min(y, lines.height - 1));
                const row = lines.indexAt(lines.width / 2, contentY);
                if (row < 0) {
                    const first = lines.itemAtIndex(0);
                    return first && contentY < first.y ? { line: 0, column: 0 }
                                                       : { line: lines.count - 1, column: 1e9 };
                }
                const item = lines.itemAtIndex(row);
                return { line: row, column: item.positionAt(x - item.x, contentY - item.y) };
            }

            MouseArea {
                id: pointer
                anchors.fill: parent
                acceptedButtons: Qt.LeftButton | Qt.RightButton
                cursorShape: Qt.IBeamCursor
                onPressed: mouse => {
                    reader.forceActiveFocus(Qt.MouseFocusReason);
                    if (mouse.button === Qt.RightButton) {
                        menu.popup();
                        return;
                    }
                    const at = reader.pointAt(mouse.x, mouse.y);
                    logText.moveCaret(at.line, at.column, mouse.modifiers & Qt.ShiftModifier);
                }
                onPositionChanged: mouse => {
                    if (!(pressedButtons & Qt.LeftButton))
                        return;
                    const at = reader.pointAt(mouse.x, mouse.y);
                    logText.moveCaret(at.line, at.column, true);
                }
                onReleased: logText.offerSelection()
                onDoubleClicked: mouse => {
                    const at = reader.pointAt(mouse.x, mouse.y);
                    logText.selectWord(at.line, at.column);
                }
                // The wheel scrolls the lines underneath.
                onWheel: wheel => wheel.accepted = false
            }
            // Dragging past the top or the bottom scrolls on and selects on.
            Timer {
                interval: 30
                repeat: true
                running: pointer.pressed && (pointer.mouseY < 0 || pointer.mouseY > reader.height)
                onTriggered: {
                    const past = pointer.mouseY < 0 ? pointer.mouseY : pointer.mouseY - reader.height;
                    const top = lines.originY - lines.topMargin;
                    const bottom = lines.originY + lines.contentHeight + lines.bottomMargin - lines.height;
                    lines.contentY = Math.max(top, Math.min(bottom, lines.contentY + past / 2));
                    const at = reader.pointAt(pointer.mouseX, pointer.mouseY);
                    logText.moveCaret(at.line, at.column, true);
                }
            }
            Menu {
                id: menu
                MenuItem {
                    objectName: "logCopy"
                    text: "Copy"
                    enabled: logText.hasSelection
                    onTriggered: logText.copySelection()
                }
                MenuItem {
                    text: "Select All"
                    onTriggered: logText.selectAll()
                }
            }
        }
        Rectangle {
            objectName: "logFocusRing"
            anchors.fill: parent
            color: "transparent"
            border.width: 2
            border.color: ViewRules.legible(logWindow.palette.highlight, logWindow.palette.window, 3)
            visible: reader.activeFocus
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
