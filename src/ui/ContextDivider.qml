import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// A thin rule with a note across it: the messages above it were left out of what the
// model saw.
RowLayout {
    objectName: "contextDivider"
    spacing: 10

    Rectangle {
        Layout.fillWidth: true
        Layout.preferredHeight: 1
        color: Theme.divider
    }
    Label {
        objectName: "contextDividerText"
        text: "Earlier messages are beyond the model's context"
        font.pixelSize: 11
        color: Theme.secondary
    }
    Rectangle {
        Layout.fillWidth: true
        Layout.preferredHeight: 1
        color: Theme.divider
    }
}
