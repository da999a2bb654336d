import QtQuick 2.15

// Figures in a corner, readable on any picture.
Rectangle {
    property alias text: label.text

    width: label.width + 24
    height: label.height + 18
    radius: 6
    color: "#e0101418"
    border { width: 1; color: "#40ffffff" }

    Text {
        id: label
        anchors.centerIn: parent
        // A long reason wraps: the panel is to cover a corner, not the picture.
        width: Math.min(implicitWidth, 400)
        wrapMode: Text.WordWrap
        color: "#f0f4f8"
        font { family: "DejaVu Sans Mono, monospace"; pixelSize: 14 }
        lineHeight: 1.2
        textFormat: Text.PlainText
        renderType: Text.NativeRendering
    }
}
