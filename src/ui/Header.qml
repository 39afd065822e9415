import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// Above the transcript: the loaded model, what the engine is doing, the backend badge,
// export and the library.
Item {
    id: header
    objectName: "header"

    RowLayout {
        anchors.fill: parent
        anchors.leftMargin: 28
        anchors.rightMargin: 28
        spacing: 10

        ColumnLayout {
            Layout.fillWidth: true
            spacing: 3
            Label {
                objectName: "headerTitle"
                Layout.fillWidth: true
                text: Store.loadedName
                elide: Text.ElideRight
                maximumLineCount: 1
                font.pixelSize: 14
                font.weight: Font.Medium
                color: Theme.primary
            }
            Label {
                objectName: "headerSubtitle"
                Layout.fillWidth: true
                text: Store.loading ? Store.activity : "Private AI that runs entirely on your machine."
                elide: Text.ElideRight
                maximumLineCount: 1
                font.pixelSize: 11
                color: Theme.secondary
            }
        }

        BusyIndicator {
            objectName: "headerBusy"
            visible: Store.loading
            running: Store.loading
            Layout.preferredWidth: 20
            Layout.preferredHeight: 20
        }

        Label {
            objectName: "backendBadge"
            visible: Store.hasLoadedModel
            text: DisplayText.backendBadge(Store.backend)
            font.pixelSize: 10
            font.weight: Font.DemiBold
            font.letterSpacing: 1
            color: Theme.accent
            leftPadding: 10
            rightPadding: 10
            topPadding: 5
            bottomPadding: 5
            background: Rectangle {
                radius: height / 2
                color: Qt.rgba(Theme.accent.r, Theme.accent.g, Theme.accent.b, 0.1)
            }
        }

        IconButton {
            id: systemPromptButton
            objectName: "systemPromptButton"
            symbol: "list.bullet.clipboard"
            symbolSize: 18
            // Tinted while the conversation has a prompt of its own.
            symbolColor: Store.hasSystemOverride ? Theme.accent : Theme.primary
            help: "System prompt"
            onClicked: systemPromptEditor.open()

            SystemPromptEditor {
                id: systemPromptEditor
                x: systemPromptButton.width - width
                y: systemPromptButton.height + 6
            }
        }

        IconButton {
            objectName: "exportButton"
            symbol: "square.and.arrow.up"
            symbolSize: 18
            help: "Export conversation"
            enabled: Store.messageList.count > 0
            onClicked: Store.exportChat()
        }

        IconButton {
            objectName: "headerLibraryButton"
            symbol: "slider.horizontal.3"
            symbolSize: 18
            help: "Models and generation settings"
            onClicked: Store.showLibrary = true
        }
    }
}
