import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// The "Vorn" alert, open exactly while the store has an error; OK clears it.
Popup {
    id: alert

    parent: Overlay.overlay
    modal: true
    dim: true
    closePolicy: Popup.NoAutoClose
    focus: true
    visible: Store.hasError
    onClosed: if (Store.hasError) Store.clearError()
    z: 10
    x: Math.round((parent.width - width) / 2)
    y: Math.round((parent.height - height) / 2)
    width: 340
    padding: 24

    Overlay.modal: Rectangle {
        color: Theme.scrim
    }
    background: Rectangle {
        color: Theme.elevatedBackground
        radius: 14
        border.color: Theme.hairline
        border.width: 1
    }

    contentItem: ColumnLayout {
        spacing: 10

        AppIcon {
            Layout.alignment: Qt.AlignHCenter
            Layout.preferredWidth: 48
            Layout.preferredHeight: 48
        }
        Label {
            objectName: "alertTitle"
            Layout.fillWidth: true
            horizontalAlignment: Text.AlignHCenter
            text: "Vorn"
            font.pixelSize: 15
            font.weight: Font.DemiBold
            color: Theme.primary
        }
        Label {
            objectName: "alertMessage"
            Layout.fillWidth: true
            horizontalAlignment: Text.AlignHCenter
            wrapMode: Text.Wrap
            text: Store.hasError ? Store.error : ""
            font.pixelSize: 12
            color: Theme.primary
        }
        PushButton {
            objectName: "alertOK"
            // Space answers the alert at once.
            focus: true
            Layout.fillWidth: true
            Layout.topMargin: 8
            text: "OK"
            prominent: true
            onClicked: Store.clearError()
        }
    }
}
