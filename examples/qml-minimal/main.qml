import QtQuick 2.15
import QtQuick.Window 2.15
import ZevQt.Multimedia 1.0

Window {
    visible: true
    width: 960
    height: 540
    color: "black"

    LiveSource { id: demo; video: "shm:///demo"; audio: "shm:///demo" }
    LiveVideo { anchors.fill: parent; source: demo }
    Component.onCompleted: LiveAudio.source = demo
    Text { anchors.centerIn: parent; text: demo.errorString; color: "white" }
}
