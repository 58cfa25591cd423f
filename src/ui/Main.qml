import QtQuick
import QtQuick.Controls
import Vantro

// The launcher's one window. Closing it quits the launcher, after a question while
// the game starts or runs, since quitting closes the game too.
ApplicationWindow {
    id: window
    visible: true
    minimumWidth: 560
    minimumHeight: 640
    width: 560
    height: 720
    title: "Vantro 3D"

    property bool quitAnswered: false

    onClosing: close => {
        if (AppModel.isGameRunning && !window.quitAnswered) {
            close.accepted = false;
            quitGuard.active = true;
            quitGuard.item.open();
        } else {
            Qt.quit();
        }
    }

    ContentView {
        objectName: "content"
        anchors.fill: parent
    }

    // Made when first asked, and read by address: most windows close without it.
    Loader {
        id: quitGuard
        objectName: "quitGuardLoader"
        active: false
        anchors.fill: parent
        source: "Confirmation.qml"
        onLoaded: {
            item.objectName = "quitGuard";
            item.title = "The game is still running";
            item.message = "Quitting will close the game too.";
            item.confirmText = "Quit and close the game";
            item.cancelText = "Keep playing";
        }
    }
    Connections {
        target: quitGuard.item
        function onConfirmed() {
            AppModel.stopGame();
            window.quitAnswered = true;
            window.close();
        }
    }
}
