import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// The privacy note, the selected conversation's use of the model's context and, once a
// run has reported a speed, the last reply's figures.
Item {
    id: footer
    objectName: "footer"

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
            objectName: "contextMeter"
            visible: Store.contextMeterShown
            Layout.rightMargin: 12
            text: Store.contextMeterText
            font.family: Theme.monospaceFamily
            font.pixelSize: 10
            color: Store.contextMeterLevel === "overflowing" ? Theme.red
                 : Store.contextMeterLevel === "nearlyFull" ? Theme.orange : Theme.accent
        }
        Label {
            objectName: "throughputLabel"
            visible: Store.hasThroughput
            text: DisplayText.throughput(Store.lastDecodeSpeed)
            font.family: Theme.monospaceFamily
            font.pixelSize: 10
            color: Theme.accent
        }
        Label {
            objectName: "tokensLabel"
            visible: Store.hasThroughput
            Layout.leftMargin: -6
            text: DisplayText.tokenCount(Store.lastCompletionTokens)
            font.family: Theme.monospaceFamily
            font.pixelSize: 10
            color: Theme.secondary
        }
    }
}
