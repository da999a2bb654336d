import QtQuick 2.15
import QtQuick.Window 2.15
import ZevQt.Multimedia 1.0

// A bar for each channel: RMS, the peak as a thin line, and the highest peak of the last moments. -60 dB is empty.
Window {
    id: window
    visible: true
    width: 160
    height: 320
    title: "Levels of demo"
    color: "#202020"

    LiveSource { id: demo; audio: "shm:///demo" }
    AudioLevels { id: levels; source: demo }

    function part(decibels) { return Math.max(0, Math.min(1, 1 + decibels / 60)) }

    Row {
        id: bars
        anchors { fill: parent; margins: 12 }
        spacing: 6
        Repeater {
            model: levels
            Rectangle {
                width: (bars.width - bars.spacing * (levels.count - 1)) / levels.count
                height: bars.height
                color: "#404040"
                Rectangle {
                    anchors.bottom: parent.bottom
                    width: parent.width
                    height: parent.height * window.part(model.rms)
                    color: model.peak > -1 ? "#e04040" : model.rms > -18 ? "#e0c040" : "#40c060"
                }
                Rectangle { y: parent.height * (1 - window.part(model.peak)); width: parent.width; height: 1; color: "white" }
                Rectangle { y: parent.height * (1 - window.part(model.hold)); width: parent.width; height: 3; color: "#e0e0e0" }
            }
        }
    }
    Text {
        anchors.centerIn: parent
        width: parent.width - 24
        wrapMode: Text.Wrap
        visible: levels.count === 0
        text: demo.errorString || "no sound yet"
        color: "white"
    }
}
