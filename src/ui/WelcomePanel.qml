import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// Shown in place of an empty conversation.
Item {
    id: panel
    objectName: "welcomePanel"

    implicitHeight: column.implicitHeight

    ColumnLayout {
        id: column
        anchors.horizontalCenter: parent.horizontalCenter
        spacing: 14

        Rectangle {
            Layout.alignment: Qt.AlignHCenter
            Layout.preferredWidth: 78
            Layout.preferredHeight: 78
            radius: 22
            color: Qt.rgba(Theme.accent.r, Theme.accent.g, Theme.accent.b, 0.07)
            Icon {
                anchors.centerIn: parent
                name: "waveform.path"
                size: 38
                color: Theme.accent
            }
        }

        Label {
            objectName: "welcomeTitle"
            Layout.alignment: Qt.AlignHCenter
            Layout.topMargin: 6
            text: "Intelligence, right here."
            font.pixelSize: 30
            font.weight: Font.Medium
            font.letterSpacing: -0.7
            color: Theme.primary
        }

        Label {
            objectName: "welcomeText"
            Layout.alignment: Qt.AlignHCenter
            horizontalAlignment: Text.AlignHCenter
            text: Store.hasLoadedModel ? "Ask a question, inspect an image,\nor work through an idea."
                                       : DisplayText.bringModelWelcome
            font.pixelSize: 14
            lineHeight: 1.2
            color: Theme.secondary
        }

        PushButton {
            objectName: "openLibraryButton"
            Layout.alignment: Qt.AlignHCenter
            Layout.topMargin: 8
            visible: !Store.hasLoadedModel
            prominent: true
            text: "Open model library"
            leftPadding: 16
            rightPadding: 16
            onClicked: Store.showLibrary = true
        }
    }
}
