import QtQuick 2.15
import QtQuick.Window 2.15
import ZevQt.Multimedia 1.0

// As many pictures as there are URLs, in a grid.
Window {
    id: window
    visible: true
    width: 1280
    height: 720
    color: "black"

    property var urls: wallUrls
    readonly property int columns: Math.ceil(Math.sqrt(urls.length))

    function sourceAt(index) { return repeater.itemAt(index).source }

    Grid {
        anchors.fill: parent
        columns: window.columns
        Repeater {
            id: repeater
            model: window.urls
            LiveVideo {
                width: window.width / window.columns
                height: window.height / Math.ceil(window.urls.length / window.columns)
                noSignalPolicy: LiveVideo.Black
                source: LiveSource { id: stream; video: modelData }
                Text {
                    anchors { left: parent.left; bottom: parent.bottom; margins: 4 }
                    text: stream.state === LiveSource.Live ? modelData : stream.errorString || modelData
                    color: "white"
                    style: Text.Outline
                    font.pixelSize: 12
                    width: parent.width - 8
                    elide: Text.ElideRight
                }
            }
        }
    }
}
