import QtQuick
import QtQuick.Controls

// Every button of the launcher. Qt 6.4 ignores a screen reader's press on a Button
// that does not handle it, and Return should press the button that has the focus.
Button {
    Accessible.name: text
    Accessible.onPressAction: clicked()
    Keys.onReturnPressed: clicked()
    Keys.onEnterPressed: clicked()
}
