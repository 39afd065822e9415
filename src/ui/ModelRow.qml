import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// One model file of the library: its name, what its header tells, the memory its KV
// cache takes at the chosen context, and its size. Projector files are listed but have
// no button.
Rectangle {
    id: row

    required property string name
    required property string sizeLabel
    required property bool projector
    required property bool loaded
    required property bool actionEnabled
    required property string details
    required property string kvCache

    objectName: "modelRow"
    implicitHeight: content.implicitHeight + 24
    radius: 10
    color: Theme.quietFill
    enabled: Store.canChangeModel

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
                objectName: "modelDetails"
                Layout.fillWidth: true
                visible: row.details.length > 0
                text: row.details
                elide: Text.ElideRight
                font.pixelSize: 11
                color: Theme.primary
                opacity: row.enabled ? 0.8 : Theme.disabledOpacity
            }
            RowLayout {
                Layout.fillWidth: true
                spacing: 0
                Label {
                    objectName: "modelSize"
                    text: row.sizeLabel + (row.projector ? " · image projector" : "")
                    font.pixelSize: 11
                    color: Theme.secondary
                    opacity: row.enabled ? 1 : Theme.disabledOpacity
                }
                Label {
                    objectName: "modelKvCache"
                    Layout.fillWidth: true
                    visible: row.kvCache.length > 0
                    text: " · " + row.kvCache
                    elide: Text.ElideRight
                    font.pixelSize: 11
                    color: Theme.secondary
                    opacity: row.enabled ? 1 : Theme.disabledOpacity
                }
            }
        }
        PushButton {
            objectName: "modelActionButton"
            Accessible.name: text + " " + row.name
            visible: !row.projector
            text: row.loaded ? "Unload" : "Load"
            enabled: row.actionEnabled
            onClicked: row.loaded ? Store.unload() : Store.load(row.name)
        }
    }
}
