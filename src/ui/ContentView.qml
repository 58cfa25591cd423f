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
    ScrollBar.vertical.policy: contentHeight > height ? ScrollBar.AlwaysOn : ScrollBar.AlwaysOff

    // Tab may reach a control below the window's edge: the page follows the focus.
    Connections {
        target: view.Window.window
        function onActiveFocusItemChanged() {
            view.reveal(view.Window.activeFocusItem);
        }
    }
    function reveal(item) {
        let inside = item;
        while (inside && inside !== page)
            inside = inside.parent;
        if (!inside)
            return;
        const flick = view.contentItem;
        const top = item.mapToItem(page, 0, 0).y + page.y - 12;
        const bottom = top + item.height + 24;
        if (top < flick.contentY)
            flick.contentY = Math.max(0, top);
        else if (bottom > flick.contentY + flick.height)
            flick.contentY = Math.min(flick.contentHeight - flick.height, bottom - flick.height);
    }

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
                color: ViewRules.stateColor !== ""
                       ? ViewRules.legible(ViewRules.stateColor, palette.window, 4.5)
                       : palette.windowText
                font.pointSize: view.baseSize * 1.2
                font.bold: true
            }
            Secondary {
                objectName: "updateNote"
                width: parent.width
                horizontalAlignment: Text.AlignHCenter
                visible: text !== ""
                text: ViewRules.updateNote
            }
            Column {
                width: parent.width
                spacing: 6
                visible: ViewRules.progressStyle !== ""
                // Made only while shown, and read by address: the window's first frame
                // needs neither type.
                Loader {
                    anchors.horizontalCenter: parent.horizontalCenter
                    active: ViewRules.progressStyle !== ""
                    visible: active
                    source: "Progress.qml"
                }
                Secondary {
                    objectName: "progressText"
                    width: parent.width
                    horizontalAlignment: Text.AlignHCenter
                    text: AppModel.progressText
                    visible: text !== ""
                    font.pointSize: view.baseSize * 0.85
                }
            }
            // What the launcher asks of the player while a step runs, as the log says it.
            Label {
                objectName: "setupNote"
                width: parent.width
                horizontalAlignment: Text.AlignHCenter
                wrapMode: Text.WordWrap
                text: AppModel.setupNote
                visible: text !== ""
            }

            // One button whatever it does, so that it keeps its place, its size and
            // the keyboard focus when Play turns into Cancel or Stop.
            VButton {
                objectName: "actionButton"
                anchors.horizontalCenter: parent.horizontalCenter
                width: 240
                height: 44
                readonly property string does: ViewRules.actionButton
                text: does === "stop" ? "Stop" : does === "cancel" ? "Cancel" : ViewRules.playTitle
                icon.source: does === "stop" ? "stop.svg" : does === "play" ? "play.svg" : ""
                icon.cache: false
                // The rule read afresh, not through `does`: bindings on the model's
                // state run before `does` follows it, and a moment's "disabled" would
                // throw the keyboard focus out of the button.
                enabled: ViewRules.actionButton !== "play" || !AppModel.busy
                prominent: does === "play"
                font.pointSize: view.baseSize * (prominent ? 1.6 : 1.3)
                font.bold: prominent
                onClicked: {
                    if (does === "stop")
                        AppModel.stopGame();
                    else if (does === "cancel")
                        AppModel.cancel();
                    else
                        AppModel.play();
                }
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

        Loader {
            width: parent.width
            active: AppModel.failureReport !== undefined
            visible: active
            source: "FailureBox.qml"
        }

        Rectangle {
            id: controlsPanel
            objectName: "controlsPanel"
            width: parent.width
            implicitHeight: controls.implicitHeight + 24
            radius: 10
            color: Qt.rgba(palette.windowText.r, palette.windowText.g, palette.windowText.b, 0.1)
            readonly property color surface: ViewRules.over(color, palette.window)

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
                            surface: controlsPanel.surface
                        }
                    }
                }
                Secondary {
                    objectName: "controlsNote"
                    width: parent.width
                    visible: ViewRules.controlRows.length > 0
                    text: "The README lists no controls; these come from the game's input settings. On-screen buttons can be clicked with the mouse."
                    font.pointSize: view.baseSize * 0.85
                    surface: controlsPanel.surface
                }
                Secondary {
                    objectName: "controlsFallback"
                    width: parent.width
                    visible: ViewRules.controlRows.length === 0
                    text: "See README. The controls are read from the game after it is downloaded."
                    surface: controlsPanel.surface
                }
            }
        }

        Secondary {
            width: parent.width
            text: "This is a 3D game and may run slowly on older computers."
            font.pointSize: view.baseSize * 0.9
        }

        Row {
            id: sheets
            spacing: 8
            // One width for the three, so that they read as a row of buttons.
            readonly property real buttonWidth: Math.max(settingsButton.implicitWidth,
                                                         logButton.implicitWidth,
                                                         aboutButton.implicitWidth)
            VButton {
                id: settingsButton
                objectName: "settingsButton"
                width: sheets.buttonWidth
                text: "Settings"
                onClicked: view.showSettings = true
            }
            VButton {
                id: logButton
                objectName: "logButton"
                width: sheets.buttonWidth
                text: "Show log"
                onClicked: view.showLog = true
            }
            VButton {
                id: aboutButton
                objectName: "aboutButton"
                width: sheets.buttonWidth
                text: "About"
                onClicked: view.showAbout = true
            }
        }
    }

    // The sheets load by address when first opened: the window's first frame then
    // waits for none of their types.
    Loader {
        id: settingsSheet
        objectName: "settingsSheet"
        active: view.showSettings
        source: "SettingsView.qml"
    }
    Connections {
        target: settingsSheet.item
        function onClosing() {
            view.showSettings = false;
        }
    }
    Loader {
        id: aboutSheet
        objectName: "aboutSheet"
        active: view.showAbout
        source: "AboutView.qml"
    }
    Connections {
        target: aboutSheet.item
        function onClosing() {
            view.showAbout = false;
        }
    }
    Loader {
        id: logSheet
        objectName: "logSheet"
        active: view.showLog
        source: "LogView.qml"
    }
    Connections {
        target: logSheet.item
        function onClosing() {
            view.showLog = false;
        }
    }
}
