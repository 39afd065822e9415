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
                text: store.loadedName
                elide: Text.ElideRight
                maximumLineCount: 1
                font.pixelSize: 14
                font.weight: Font.Medium
                color: Theme.primary
            }
            Label {
                objectName: "headerSubtitle"
                Layout.fillWidth: true
                text: store.loading ? store.activity : "Private AI that runs entirely on your machine."
                elide: Text.ElideRight
                maximumLineCount: 1
                font.pixelSize: 11
                color: Theme.secondary
            }
        }

        BusyIndicator {
            objectName: "headerBusy"
            visible: store.loading
            running: store.loading
            Layout.preferredWidth: 20
            Layout.preferredHeight: 20
        }

        Label {
            objectName: "backendBadge"
            visible: store.hasLoadedModel
            text: DisplayText.backendBadge(store.backend)
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
            objectName: "exportButton"
            symbol: "square.and.arrow.up"
            symbolSize: 18
            help: "Export conversation"
            enabled: store.messageList.count > 0
            onClicked: store.exportChat()
        }

        IconButton {
            objectName: "headerLibraryButton"
            symbol: "slider.horizontal.3"
            symbolSize: 18
            help: "Models and generation settings"
            onClicked: store.showLibrary = true
        }
    }
}
