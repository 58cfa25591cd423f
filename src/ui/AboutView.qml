import QtQuick
import QtQuick.Controls
import Vantro

// Who made the game and the engine, and what the launcher does and does not send.
Sheet {
    id: about
    title: "About"
    width: 480
    height: 352

    Column {
        anchors.fill: parent
        anchors.margins: 20
        spacing: 10

        Label {
            text: "About 3D Vantro"
            font.pointSize: Qt.application.font.pointSize * 1.6
            font.bold: true
        }
        Label {
            objectName: "aboutLicence"
            width: parent.width
            wrapMode: Text.WordWrap
            text: ViewRules.aboutLicenceText
        }
        VButton {
            objectName: "repositoryLink"
            text: ViewRules.repositoryLinkText
            flat: true
            leftPadding: 0
            accessibleRole: Accessible.Link
            onClicked: Qt.openUrlExternally(ViewRules.repositoryUrl)
            contentItem: Label {
                text: parent.text
                color: ViewRules.legible(palette.link, palette.window, 4.5)
                font.underline: true
            }
        }
        Label {
            width: parent.width
            wrapMode: Text.WordWrap
            text: "The game belongs to its author. This app is only a launcher: it downloads the game and the official Godot engine to your computer and starts them. The game's logo and fonts are trademarks of their owner."
        }
        Label {
            width: parent.width
            wrapMode: Text.WordWrap
            text: "Godot Engine is free software under the MIT licence (godotengine.org)."
        }
        Secondary {
            objectName: "versionLine"
            width: parent.width
            visible: text !== ""
            text: ViewRules.versionLine
            font.pointSize: Qt.application.font.pointSize * 0.9
        }
        Secondary {
            width: parent.width
            text: ViewRules.basedOnText
            font.pointSize: Qt.application.font.pointSize * 0.9
        }
        Secondary {
            width: parent.width
            text: "Nothing is sent anywhere; the app only downloads the game from GitHub and the engine from godotengine/godot releases."
            font.pointSize: Qt.application.font.pointSize * 0.9
        }
    }
    VButton {
        objectName: "doneButton"
        anchors.right: parent.right
        anchors.bottom: parent.bottom
        anchors.margins: 20
        text: "Done"
        highlighted: true
        onClicked: about.close()
    }
}
