import QtQuick

// The banner: a diagonal red-to-navy gradient behind the white car.
Item {
    implicitHeight: 120
    Accessible.ignored: true

    Canvas {
        id: backdrop
        anchors.fill: parent
        onWidthChanged: requestPaint()
        onHeightChanged: requestPaint()
        onPaint: {
            const ctx = getContext("2d");
            ctx.reset();
            const gradient = ctx.createLinearGradient(0, 0, width, height);
            gradient.addColorStop(0, Qt.rgba(0.85, 0.1, 0.1, 1));
            gradient.addColorStop(1, Qt.rgba(0.1, 0.1, 0.25, 1));
            ctx.fillStyle = gradient;
            ctx.beginPath();
            ctx.roundedRect(0, 0, width, height, 16, 16);
            ctx.fill();
        }
    }
    Image {
        anchors.centerIn: parent
        height: 70
        width: height * 2
        source: "car.svg"
        sourceSize: Qt.size(width, height)
        fillMode: Image.PreserveAspectFit
        // Qt keeps cached images until after the program's end, where the leak
        // checker counts them; the symbols are drawn once per window anyway.
        cache: false
        smooth: true
    }
}
