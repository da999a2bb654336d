import QtQuick 2.15

// Figures in a corner, readable on any picture.
Rectangle {
    property alias text: label.text

    width: label.implicitWidth + 24
    height: label.implicitHeight + 18
    radius: 6
    color: "#e0101418"
    border { width: 1; color: "#40ffffff" }

    Text {
        id: label
        anchors.centerIn: parent
        color: "#f0f4f8"
        font { family: "DejaVu Sans Mono, monospace"; pixelSize: 14 }
        lineHeight: 1.2
        textFormat: Text.PlainText
        renderType: Text.NativeRendering
    }
}
