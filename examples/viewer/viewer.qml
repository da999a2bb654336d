import QtQuick 2.15
import ZevQt.Multimedia 1.0

Rectangle {
    id: root

    property QtObject viewer // set by the program
    readonly property QtObject sound: viewer ? viewer.sound : null
    property alias video: video
    property alias statistics: statistics.visible
    signal fullscreenToggled()
    signal quitRequested()

    color: "black"
    focus: true

    LiveVideo {
        id: video
        objectName: "video"
        anchors.fill: parent
        source: root.viewer ? root.viewer.provider : null
    }

    Statistics {
        id: statistics
        anchors { left: parent.left; top: parent.top; margins: 12 }
        visible: false
        text: visible && root.viewer ? root.viewer.statisticsText : ""
    }

    Notice {
        objectName: "notice"
        anchors.centerIn: parent
        text: video.problem !== "" ? video.problem : root.viewer ? root.viewer.cameraTrouble : ""
    }

    Meters {
        id: meters
        objectName: "meters"
        anchors { right: parent.right; bottom: parent.bottom; margins: 12 }
        visible: channels > 0 && root.height >= height + 24 && root.width >= 2 * width
        levels: root.viewer ? root.viewer.levels : []
        text: root.sound ? root.sound.text : ""
    }

    Keys.onPressed: {
        switch (event.key) {
        case Qt.Key_M:
            if (root.sound)
                root.sound.muted = !root.sound.muted
            break
        case Qt.Key_Up:
        case Qt.Key_Down:
            if (root.sound)
                root.sound.volume = root.sound.volume + (event.key === Qt.Key_Up ? 0.05 : -0.05)
            break
        case Qt.Key_S:
            statistics.visible = !statistics.visible
            break
        case Qt.Key_A:
            video.fillMode = (video.fillMode + 1) % 3
            break
        case Qt.Key_F:
            root.fullscreenToggled()
            break
        case Qt.Key_Escape:
        case Qt.Key_Q:
            root.quitRequested()
            break
        default:
            return
        }
        event.accepted = true
    }
}
