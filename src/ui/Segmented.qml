import QtQuick
import QtQuick.Controls

// A two-way choice shown as two joined buttons, the chosen one filled. To a screen
// reader it is a group of two radio buttons; the arrow keys move the choice.
Row {
    id: picker
    property string title
    property bool value
    property string offText
    property string onText
    // At least; a larger desktop font widens the segments rather than cutting their text.
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
            id: segments
            model: [false, true]
            VButton {
                required property bool modelData
                text: modelData ? picker.onText : picker.offText
                width: Math.max(picker.segmentWidth, implicitWidth)
                accessibleRole: Accessible.RadioButton
                checked: picker.value === modelData
                onClicked: picker.picked(modelData)
                Keys.onLeftPressed: choose(false)
                Keys.onRightPressed: choose(true)
                function choose(value) {
                    picker.picked(value);
                    segments.itemAt(value ? 1 : 0).forceActiveFocus(Qt.TabFocusReason);
                }
            }
        }
    }
}
