import QtQuick
import QtQuick.Controls
import Vantro

// The main window's content. Every value comes from the model; every control calls
// one of its commands or opens a sheet.
ScrollView {
    id: view
    property bool showSettings: false
    property bool showAbout: false
    property bool showLog: false

    readonly property real baseSize: Qt.application.font.pointSize
    contentWidth: availableWidth
    contentHeight: page.height + 48
    ScrollBar.vertical.policy: ScrollBar.AlwaysOn

    Column {
        id: page
        x: 24
        y: 24
        width: view.availableWidth - 48
        spacing: 16

        HeaderArt {
            width: parent.width
        }

        Column {
            width: parent.width
            spacing: 4
            Label {
                objectName: "gameTitle"
                width: parent.width
                horizontalAlignment: Text.AlignHCenter
                text: "3D Vantro"
                font.pointSize: view.baseSize * 2.6
                font.bold: true
            }
            Secondary {
                objectName: "summary"
                width: parent.width
                horizontalAlignment: Text.AlignHCenter
                text: ViewRules.summaryText
                visible: text !== ""
            }
            Secondary {
                objectName: "licence"
                width: parent.width
                horizontalAlignment: Text.AlignHCenter
                text: ViewRules.licenceLine
                visible: text !== ""
                font.pointSize: view.baseSize * 0.85
            }
        }

        Column {
            width: parent.width
            spacing: 10

            Label {
                objectName: "stateTitle"
                width: parent.width
                horizontalAlignment: Text.AlignHCenter
                wrapMode: Text.WordWrap
                text: AppModel.stateTitle
                color: ViewRules.stateColor !== "" ? ViewRules.stateColor : palette.windowText
                font.pointSize: view.baseSize * 1.2
                font.bold: true
            }
            Column {
                anchors.horizontalCenter: parent.horizontalCenter
                spacing: 4
                visible: ViewRules.progressStyle !== ""
                BusyIndicator {
                    objectName: "spinner"
                    anchors.horizontalCenter: parent.horizontalCenter
                    implicitWidth: 28
                    implicitHeight: 28
                    visible: ViewRules.progressStyle === "spinner"
                    running: visible
                    Accessible.name: "Working"
                }
                ProgressBar {
                    objectName: "progressBar"
                    anchors.horizontalCenter: parent.horizontalCenter
                    width: 300
                    visible: ViewRules.progressStyle === "bar"
                    value: visible ? AppModel.progress : 0
                    Accessible.name: AppModel.progressText
                }
                Secondary {
                    objectName: "progressText"
                    anchors.horizontalCenter: parent.horizontalCenter
                    text: AppModel.progressText
                    visible: text !== ""
                    font.pointSize: view.baseSize * 0.85
                }
            }

            VButton {
                objectName: "stopButton"
                anchors.horizontalCenter: parent.horizontalCenter
                visible: ViewRules.actionButton === "stop"
                text: "Stop"
                icon.source: "stop.svg"
                icon.cache: false
                width: 220
                height: 28
                onClicked: AppModel.stopGame()
            }
            VButton {
                objectName: "cancelButton"
                anchors.horizontalCenter: parent.horizontalCenter
                visible: ViewRules.actionButton === "cancel"
                text: "Cancel"
                height: 28
                onClicked: AppModel.cancel()
            }
            VButton {
                objectName: "playButton"
                anchors.horizontalCenter: parent.horizontalCenter
                visible: ViewRules.actionButton === "play"
                enabled: !AppModel.busy
                text: ViewRules.playTitle
                icon.source: "play.svg"
                icon.cache: false
                // Filled with the accent colour: the one thing to press on this window.
                palette.button: view.palette.highlight
                palette.buttonText: view.palette.highlightedText
                icon.color: view.palette.highlightedText
                width: 240
                height: 44
                font.pointSize: view.baseSize * 1.6
                font.bold: true
                onClicked: AppModel.play()
            }

            Secondary {
                objectName: "downloadNote"
                width: parent.width
                horizontalAlignment: Text.AlignHCenter
                text: ViewRules.downloadNote
                visible: text !== ""
                font.pointSize: view.baseSize * 0.9
            }

            Segmented {
                objectName: "displayPicker"
                anchors.horizontalCenter: parent.horizontalCenter
                title: "Display"
                offText: "Windowed"
                onText: "Fullscreen"
                segmentWidth: 100
                value: AppModel.fullscreen
                enabled: !AppModel.busy
                onPicked: value => AppModel.fullscreen = value
            }
        }

        FailureBox {
            objectName: "failureBox"
            width: parent.width
            visible: AppModel.failureReport !== undefined
            report: visible ? AppModel.failureReport : ""
        }

        Rectangle {
            width: parent.width
            implicitHeight: controls.implicitHeight + 24
            radius: 10
            color: Qt.rgba(palette.windowText.r, palette.windowText.g, palette.windowText.b, 0.1)

            Column {
                id: controls
                x: 12
                y: 12
                width: parent.width - 24
                spacing: 6

                Label {
                    text: "Controls"
                    font.pointSize: view.baseSize * 1.2
                    font.bold: true
                }
                Repeater {
                    objectName: "controlRows"
                    model: ViewRules.controlRows
                    Row {
                        required property var modelData
                        width: controls.width
                        Label {
                            width: 130
                            text: modelData.action
                            wrapMode: Text.WordWrap
                        }
                        Secondary {
                            width: parent.width - 130
                            text: modelData.inputs
                        }
                    }
                }
                Secondary {
                    objectName: "controlsNote"
                    width: parent.width
                    visible: ViewRules.controlRows.length > 0
                    text: "The README lists no controls; these come from the game's input settings. On-screen buttons can be clicked with the mouse."
                    font.pointSize: view.baseSize * 0.85
                }
                Secondary {
                    objectName: "controlsFallback"
                    width: parent.width
                    visible: ViewRules.controlRows.length === 0
                    text: "See README. The controls are read from the game after it is downloaded."
                }
            }
        }

        Secondary {
            width: parent.width
            text: "This is a 3D game and may run slowly on older computers."
            font.pointSize: view.baseSize * 0.9
        }

        Row {
            spacing: 8
            VButton {
                objectName: "settingsButton"
                text: "Settings"
                flat: true
                onClicked: view.showSettings = true
            }
            VButton {
                objectName: "logButton"
                text: "Show log"
                flat: true
                onClicked: view.showLog = true
            }
            VButton {
                objectName: "aboutButton"
                text: "About"
                flat: true
                onClicked: view.showAbout = true
            }
        }

        Item {
            width: 1
            height: 8
        }
    }

    Loader {
        active: view.showSettings
        sourceComponent: SettingsView {
            onClosing: view.showSettings = false
        }
    }
    Loader {
        active: view.showAbout
        sourceComponent: AboutView {
            onClosing: view.showAbout = false
        }
    }
    Loader {
        active: view.showLog
        sourceComponent: LogView {
            onClosing: view.showLog = false
        }
    }
}
