import QtQuick
import QtQuick.Controls
import QtQuick.Controls.impl
import Vantro

// Every button of the launcher. Its border stands out from the window; its focus
// ring sits apart from it, so that it cannot be taken for a chosen segment; Return
// presses the button that has the focus. Filled with the accent colour when it is
// the window's main action (`prominent`), the default answer (`highlighted`) or the
// chosen segment of a picker.
Button {
    id: button
    property bool prominent: false
    // What a screen reader hears it as (controlaccessible.h reads it).
    property int accessibleRole: Accessible.Button
    readonly property bool filled: prominent || highlighted
                                   || (checked && accessibleRole === Accessible.RadioButton)
    readonly property color fillColor: filled
        ? ViewRules.legible(palette.highlight, palette.highlightedText, 4.5) : palette.button
    readonly property color textColor: filled ? palette.highlightedText : palette.buttonText
    readonly property color borderColor: ViewRules.legible(palette.mid, palette.window, 3)
    readonly property color ringColor: ViewRules.legible(palette.highlight, palette.window, 3)

    Accessible.name: text
    Keys.onReturnPressed: clicked()
    Keys.onEnterPressed: clicked()

    padding: 6
    horizontalPadding: 14
    spacing: 6
    icon.width: 16
    icon.height: 16
    icon.color: textColor

    contentItem: IconLabel {
        spacing: button.spacing
        display: button.display
        icon: button.icon
        text: button.text
        font: button.font
        color: button.textColor
    }

    background: Rectangle {
        implicitWidth: 80
        implicitHeight: 30
        radius: 4
        visible: !button.flat || button.down || button.visualFocus
        color: button.down || (button.hovered && button.enabled)
               ? Qt.darker(button.fillColor, button.down ? 1.18 : 1.06) : button.fillColor
        border.color: button.filled ? color : button.borderColor
        opacity: button.enabled ? 1 : 0.6

        Rectangle {
            anchors.fill: parent
            anchors.margins: -4
            radius: parent.radius + 3
            color: "transparent"
            border.width: 2
            border.color: button.ringColor
            visible: button.visualFocus
        }
    }
}
