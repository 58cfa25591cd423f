import QtQuick
import QtQuick.Controls
import Vantro

// Display settings and housekeeping, with a question before anything is deleted.
Sheet {
    id: settings
    title: "Settings"
    width: 480
    height: 400
    doneEnabled: !removeQuestion.visible && !reinstallQuestion.visible

    Component.onCompleted: {
        AppModel.refreshFromDisk();
        ViewRules.measureInstalledSize();
    }

    // Scrolls above "Done" when a large desktop font makes the column taller than the
    // fixed window, rather than running under the button.
    Flickable {
        id: scroller
        anchors.fill: parent
        anchors.bottomMargin: doneButton.height + 34
        clip: true
        contentHeight: column.implicitHeight + 20
        boundsBehavior: Flickable.StopAtBounds
        ScrollBar.vertical: ScrollBar {
            policy: scroller.contentHeight > scroller.height ? ScrollBar.AlwaysOn
                                                             : ScrollBar.AlwaysOff
        }

        Column {
            id: column
            x: 20
            y: 20
            width: scroller.width - 40
            spacing: 14

            Label {
                text: "Settings"
                font.pointSize: Qt.application.font.pointSize * 1.6
                font.bold: true
            }
            Segmented {
                objectName: "windowPicker"
                title: "Window"
                offText: "Windowed"
                onText: "Fullscreen"
                value: AppModel.fullscreen
                onPicked: value => AppModel.fullscreen = value
            }
            Row {
                spacing: 8
                Label {
                    id: resolutionTitle
                    text: "Resolution (windowed)"
                    anchors.verticalCenter: parent.verticalCenter
                }
                ComboBox {
                    objectName: "resolutionPicker"
                    model: AppModel.resolutionChoices
                    currentIndex: AppModel.resolutionChoices.indexOf(AppModel.resolution)
                    enabled: !AppModel.fullscreen
                    Accessible.name: resolutionTitle.text
                    onActivated: index => AppModel.resolution = AppModel.resolutionChoices[index]
                    // The buttons' border and focus ring, for one look across the window.
                    Rectangle {
                        anchors.fill: parent
                        anchors.margins: parent.visualFocus ? -4 : 0
                        radius: parent.visualFocus ? 5 : 2
                        color: "transparent"
                        border.width: parent.visualFocus ? 2 : 1
                        border.color: ViewRules.legible(parent.visualFocus ? palette.highlight
                                                                           : palette.mid,
                                                        palette.window, 3)
                        opacity: parent.enabled ? 1 : 0.6
                    }
                }
            }
            MenuSeparator {
                width: parent.width
                padding: 0
            }
            // Wraps rather than running past the fixed window with a large desktop font.
            Flow {
                width: parent.width
                spacing: 8
                enabled: !AppModel.busy
                VButton {
                    objectName: "updateButton"
                    text: "Update the game"
                    onClicked: AppModel.updateGame()
                }
                VButton {
                    objectName: "reinstallButton"
                    text: "Reinstall"
                    onClicked: reinstallQuestion.open()
                }
                VButton {
                    objectName: "removeButton"
                    text: "Remove everything"
                    onClicked: removeQuestion.open()
                }
            }
            Label {
                objectName: "updateDetail"
                width: parent.width
                wrapMode: Text.WordWrap
                visible: text !== ""
                text: ViewRules.updateDetail
                font.pointSize: Qt.application.font.pointSize * 0.85
            }
            Secondary {
                width: parent.width
                text: "Updating downloads the game again. Save files are kept: Godot stores them outside this app's folder."
                font.pointSize: Qt.application.font.pointSize * 0.85
            }
            Row {
                spacing: 8
                VButton {
                    objectName: "revealButton"
                    text: "Show in file manager"
                    onClicked: AppModel.revealInFinder()
                }
                VButton {
                    objectName: "savesButton"
                    text: "Show saves"
                    enabled: AppModel.savesFolderExists
                    onClicked: AppModel.showSaves()
                }
            }
            Secondary {
                objectName: "savesNote"
                width: parent.width
                text: ViewRules.savesNote
                visible: text !== ""
                font.pointSize: Qt.application.font.pointSize * 0.85
            }
        }
    }
    VButton {
        id: doneButton
        objectName: "doneButton"
        anchors.right: parent.right
        anchors.bottom: parent.bottom
        anchors.margins: 20
        text: "Done"
        highlighted: true
        onClicked: settings.close()
    }

    Confirmation {
        id: removeQuestion
        objectName: "removeQuestion"
        title: "Remove everything?"
        message: ViewRules.removeQuestion
        confirmText: "Remove"
        confirmRole: DialogButtonBox.DestructiveRole
        confirmIsDefault: false
        onConfirmed: AppModel.removeEverything()
    }
    Confirmation {
        id: reinstallQuestion
        objectName: "reinstallQuestion"
        title: "Reinstall?"
        message: ViewRules.reinstallQuestion
        confirmText: "Reinstall"
        onConfirmed: AppModel.reinstall()
    }
}
