import QtQuick
import QtQuick.Controls

// A two-button question. `confirmed` fires only for the first button; any button
// closes it.
Dialog {
    id: question
    property alias message: messageText.text
    property alias confirmText: confirmButton.text
    property alias cancelText: cancelButton.text
    property int confirmRole: DialogButtonBox.AcceptRole
    // Which button Return presses when the question opens.
    property bool confirmIsDefault: true
    signal confirmed
    signal declined

    modal: true
    anchors.centerIn: parent
    width: Math.min(parent ? parent.width - 40 : 400, 400)
    closePolicy: Popup.CloseOnEscape
    onOpened: (confirmIsDefault ? confirmButton : cancelButton).forceActiveFocus()
    onRejected: declined()

    Label {
        id: messageText
        width: parent.width
        wrapMode: Text.WordWrap
    }

    footer: DialogButtonBox {
        VButton {
            id: confirmButton
            DialogButtonBox.buttonRole: question.confirmRole
            onClicked: {
                question.close();
                question.confirmed();
            }
        }
        VButton {
            id: cancelButton
            text: "Cancel"
            DialogButtonBox.buttonRole: DialogButtonBox.RejectRole
            onClicked: {
                question.close();
                question.declined();
            }
        }
    }
}
