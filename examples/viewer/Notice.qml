import QtQuick 2.15

// Why there is nothing to see, in the middle of the window.
Rectangle {
    property alias text: label.text

    visible: text !== ""
    width: label.width + 40
    height: label.height + 28
    radius: 6
    color: "#e0101418"
    border { width: 1; color: "#c0e0a040" }

    Text {
        id: label
        anchors.centerIn: parent
        width: Math.min(implicitWidth, parent.parent.width - 80, 640)
        wrapMode: Text.Wrap
        horizontalAlignment: Text.AlignHCenter
        color: "#f0f4f8"
        font.pixelSize: 16
        lineHeight: 1.2
        textFormat: Text.PlainText
        renderType: Text.NativeRendering
    }
}
