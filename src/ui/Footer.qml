import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// The privacy note and, once a run has reported a speed, the last reply's figures.
Item {
    id: footer
    objectName: "footer"

    readonly property var last: store.hasState ? store.state.last : undefined
    readonly property bool hasThroughput: last !== undefined && last.decode_tps > 0

    RowLayout {
        anchors.fill: parent
        anchors.leftMargin: 34
        anchors.rightMargin: 34
        spacing: 6

        Icon {
            name: "lock.shield"
            size: 12
            color: Theme.secondary
        }
        Label {
            objectName: "onDeviceLabel"
            text: "On-device"
            font.family: Theme.monospaceFamily
            font.pixelSize: 10
            color: Theme.secondary
        }
        Item {
            Layout.fillWidth: true
        }
        Label {
            objectName: "throughputLabel"
            visible: footer.hasThroughput
            text: footer.hasThroughput ? DisplayText.throughput(footer.last.decode_tps) : ""
            font.family: Theme.monospaceFamily
            font.pixelSize: 10
            color: Theme.accent
        }
        Label {
            objectName: "tokensLabel"
            visible: footer.hasThroughput
            Layout.leftMargin: -6
            text: footer.hasThroughput ? DisplayText.tokenCount(footer.last.completion_tokens) : ""
            font.family: Theme.monospaceFamily
            font.pixelSize: 10
            color: Theme.secondary
        }
    }
}
