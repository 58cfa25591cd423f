import QtQuick
import QtQuick.Controls

// A two-way choice shown as two joined buttons, the chosen one pressed in.
Row {
    id: picker
    property string title
    property bool value
    property string offText
    property string onText
    property real segmentWidth: 0
    signal picked(bool value)

    spacing: 8
    Accessible.role: Accessible.Grouping
    Accessible.name: title

    Label {
        text: picker.title
        anchors.verticalCenter: parent.verticalCenter
    }
    Row {
        Repeater {
            model: [false, true]
            VButton {
                required property bool modelData
                text: modelData ? picker.onText : picker.offText
                width: picker.segmentWidth > 0 ? picker.segmentWidth : implicitWidth
                checked: picker.value === modelData
                // The pressed-in look alone hardly shows on a dark palette.
                highlighted: checked
                Accessible.role: Accessible.RadioButton
                Accessible.checkable: true
                Accessible.checked: checked
                onClicked: picker.picked(modelData)
            }
        }
    }
}
