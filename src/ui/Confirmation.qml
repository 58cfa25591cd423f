import QtQuick
import QtQuick.Controls

// A two-button question. `confirmed` fires only for the first button; any button
// closes it.
Dialog {
    id: question
    property string message
    property alias confirmText: confirmButton.text
    property alias cancelText: cancelButton.text
    // The confirming button's role, for the reader: DialogButtonBox.AcceptRole or
    // DestructiveRole. The other button always cancels.
    property int confirmRole: DialogButtonBox.AcceptRole
    // Which button Return presses when the question opens.
    property bool confirmIsDefault: true
    signal confirmed
    signal declined

    modal: true
    anchors.centerIn: parent
    width: 360
    closePolicy: Popup.CloseOnEscape
    onOpened: (confirmIsDefault ? confirmButton : cancelButton).forceActiveFocus()
    onRejected: declined()

    padding: 16
    topPadding: 8
    header: Label {
        text: question.title
        font.bold: true
        wrapMode: Text.WordWrap
        padding: 16
        bottomPadding: 0
    }
    contentItem: Label {
        text: question.message
        wrapMode: Text.WordWrap
    }

    // A plain row: DialogButtonBox loops over its implicit height in Qt 6.4 when
    // the message wraps.
    footer: Item {
        implicitHeight: buttons.implicitHeight + 32
        Row {
            id: buttons
            anchors.right: parent.right
            anchors.rightMargin: 16
            anchors.verticalCenter: parent.verticalCenter
            spacing: 8
            VButton {
                id: confirmButton
                highlighted: question.confirmIsDefault
                onClicked: {
                    question.close();
                    question.confirmed();
                }
            }
            VButton {
                id: cancelButton
                text: "Cancel"
                highlighted: !question.confirmIsDefault
                onClicked: {
                    question.close();
                    question.declined();
                }
            }
        }
    }
}
