import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// A download in progress: its name, a bar and how much has arrived.
ColumnLayout {
    id: row

    required property string name
    required property double fraction
    required property string receivedLabel

    objectName: "downloadRow"
    spacing: 6

    Label {
        objectName: "downloadName"
        Layout.topMargin: 12
        Layout.leftMargin: 12
        Layout.rightMargin: 12
        text: row.name
        font.pixelSize: 12
        color: Theme.primary
    }
    ProgressBar {
        objectName: "downloadProgress"
        Layout.fillWidth: true
        Layout.leftMargin: 12
        Layout.rightMargin: 12
        from: 0
        to: 1
        value: row.fraction

        background: Rectangle {
            implicitHeight: 6
            radius: 3
            color: Theme.raisedFill
            border.color: Theme.hairline
            border.width: 1
        }
        contentItem: Item {
            implicitHeight: 6
            Rectangle {
                width: parent.width * Math.max(0, Math.min(1, row.fraction))
                height: parent.height
                radius: 3
                color: Theme.tint
            }
        }
    }
    Label {
        objectName: "downloadReceived"
        Layout.bottomMargin: 12
        Layout.leftMargin: 12
        text: row.receivedLabel
        font.pixelSize: 11
        color: Theme.secondary
    }
}
