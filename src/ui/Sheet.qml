import QtQuick
import QtQuick.Controls

// A fixed-size modal window over the main window, closed by its "Done" button, by
// Escape, or by the desktop's own close. Return presses the button that has the
// focus; with no button focused it is "Done", the default action.
ApplicationWindow {
    id: sheet
    property bool doneEnabled: true
    default property alias content: body.data

    flags: Qt.Dialog
    modality: Qt.ApplicationModal
    minimumWidth: width
    maximumWidth: width
    minimumHeight: height
    maximumHeight: height
    visible: true

    FocusScope {
        id: body
        objectName: "sheetBody"
        anchors.fill: parent
        focus: true
        // Reached only by keys no focused control took.
        Keys.onReturnPressed: if (sheet.doneEnabled) sheet.close()
        Keys.onEnterPressed: if (sheet.doneEnabled) sheet.close()
    }
    Shortcut {
        sequence: "Escape"
        enabled: sheet.doneEnabled
        onActivated: sheet.close()
    }
}
