import QtQuick
import QtQuick.Controls

// Every button of the launcher. Qt 6.4 ignores a screen reader's press on a Button
// that does not handle it, and Return should press the button that has the focus.
Button {
    id: button
    Accessible.name: text
    Accessible.onPressAction: button.clicked()
    Keys.onReturnPressed: button.clicked()
    Keys.onEnterPressed: button.clicked()
}
