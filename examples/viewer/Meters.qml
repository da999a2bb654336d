import QtQuick 2.15

// A bar per channel: RMS filled, the peak lighter above it, the highest peak as a line. -60 to 0 dB.
Rectangle {
    id: root

    property var levels: [] // of each channel [rms, peak, hold] in dB
    property string text
    readonly property int channels: levels.length
    readonly property real floor: -60

    function share(db) {
        return Math.max(0, Math.min(1, 1 - db / floor))
    }

    visible: channels > 0
    width: row.width + scale_.width + 26
    height: 188
    radius: 6
    color: "#e0101418"
    border { width: 1; color: "#40ffffff" }

    Row {
        id: row
        x: 10
        y: 12
        spacing: 5
        Repeater {
            model: root.channels
            Item {
                id: bar
                readonly property var level: root.levels[index] || [root.floor, root.floor, root.floor]
                width: 14
                height: 140

                Rectangle { // scale: green, yellow from -18 dB, red from -6 dB
                    id: track
                    anchors.fill: parent
                    radius: 2
                    color: "#28323a"
                }
                Repeater {
                    model: [[-60, -18, "#2fbf71"], [-18, -6, "#e8c547"], [-6, 0, "#e5484d"]]
                    Item {
                        readonly property real from: root.share(modelData[0])
                        readonly property real to: root.share(modelData[1])
                        function part(db) {
                            return Math.max(0, Math.min(root.share(db), to) - from) * bar.height
                        }
                        anchors.fill: parent
                        Rectangle {
                            width: parent.width
                            height: parent.part(bar.level[1])
                            y: parent.height * (1 - parent.from) - height
                            color: modelData[2]
                            opacity: 0.45
                        }
                        Rectangle {
                            width: parent.width
                            height: parent.part(bar.level[0])
                            y: parent.height * (1 - parent.from) - height
                            color: modelData[2]
                        }
                    }
                }
                Rectangle {
                    visible: bar.level[2] > root.floor
                    width: parent.width
                    height: 2
                    y: (parent.height - height) * (1 - root.share(bar.level[2]))
                    color: bar.level[2] >= -0.1 ? "#ff5c61" : "#f0f4f8"
                }
            }
        }
    }

    Item {
        id: scale_
        anchors { left: row.right; leftMargin: 6 }
        y: row.y
        width: 22
        height: 140
        Repeater {
            model: [0, -6, -18, -30, -42, -60]
            Text {
                anchors.right: parent.right
                y: (1 - root.share(modelData)) * scale_.height - height / 2
                text: modelData
                color: "#a8b4be"
                font { family: "DejaVu Sans Mono, monospace"; pixelSize: 10 }
                renderType: Text.NativeRendering
            }
        }
    }

    Text {
        anchors { horizontalCenter: parent.horizontalCenter; bottom: parent.bottom; bottomMargin: 8 }
        text: root.text
        color: "#f0f4f8"
        font { family: "DejaVu Sans Mono, monospace"; pixelSize: 11 }
        renderType: Text.NativeRendering
    }
}
