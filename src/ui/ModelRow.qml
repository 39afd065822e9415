import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// One model file of the library. Projector files are listed but have no button.
Rectangle {
    id: row

    required property string name
    required property double size
    required property string sizeLabel
    required property bool projector

    readonly property bool loaded: store.loadedFile === name

    objectName: "modelRow"
    implicitHeight: content.implicitHeight + 24
    radius: 10
    color: Theme.quietFill
    enabled: !store.loading && !store.generating

    RowLayout {
        id: content
        anchors.fill: parent
        anchors.margins: 12
        spacing: 8

        Icon {
            objectName: "modelIcon"
            readonly property string symbol: row.projector ? "photo.stack" : "cube"
            Layout.preferredWidth: 28
            name: symbol
            size: 20
            color: Theme.accent
            opacity: row.enabled ? 1 : Theme.disabledOpacity
        }
        ColumnLayout {
            Layout.fillWidth: true
            spacing: 5
            Label {
                objectName: "modelName"
                Layout.fillWidth: true
                text: row.name
                wrapMode: Text.WrapAnywhere
                maximumLineCount: 2
                elide: Text.ElideRight
                font.pixelSize: 12
                font.weight: Font.Medium
                color: Theme.primary
                opacity: row.enabled ? 1 : Theme.disabledOpacity
            }
            Label {
                objectName: "modelSize"
                text: row.sizeLabel + (row.projector ? " · image projector" : "")
                font.pixelSize: 11
                color: Theme.secondary
                opacity: row.enabled ? 1 : Theme.disabledOpacity
            }
        }
        PushButton {
            objectName: "modelActionButton"
            visible: !row.projector
            text: row.loaded ? "Unload" : "Load"
            // Only a size of exactly zero blocks Load; a negative size still allows it.
            enabled: row.loaded || row.size !== 0
            onClicked: row.loaded ? store.unload() : store.load(row.name)
        }
    }
}
