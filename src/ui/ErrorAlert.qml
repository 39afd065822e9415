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
    visible: store.hasError
    onClosed: if (store.hasError) store.clearError()
    z: 10
    x: Math.round((parent.width - width) / 2)
    y: Math.round((parent.height - height) / 2)
    width: 340
    padding: 24

    Overlay.modal: Rectangle {
        color: Theme.dark ? Qt.rgba(0, 0, 0, 0.45) : Qt.rgba(0, 0, 0, 0.22)
    }
    background: Rectangle {
        color: Theme.dark ? Qt.rgba(0.12, 0.145, 0.18, 1) : Theme.system.base
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
            text: store.hasError ? store.error : ""
            font.pixelSize: 12
            color: Theme.primary
        }
        PushButton {
            objectName: "alertOK"
            Layout.fillWidth: true
            Layout.topMargin: 8
            text: "OK"
            prominent: true
            onClicked: store.clearError()
        }
    }
}
