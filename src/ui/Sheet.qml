import QtQuick
import QtQuick.Controls

// A fixed-size modal window over the main window, closed by its "Done" button, by
// Return, or by the desktop's own close.
ApplicationWindow {
    id: sheet
    property bool doneEnabled: true

    flags: Qt.Dialog
    modality: Qt.ApplicationModal
    minimumWidth: width
    maximumWidth: width
    minimumHeight: height
    maximumHeight: height
    visible: true

    Shortcut {
        sequences: ["Return", "Enter"]
        enabled: sheet.doneEnabled
        onActivated: sheet.close()
    }
    Shortcut {
        sequence: "Escape"
        enabled: sheet.doneEnabled
        onActivated: sheet.close()
    }
}
