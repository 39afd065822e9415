import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// The keyboard shortcuts, listed: what each does and its keys.
Popup {
    id: sheet
    objectName: "shortcutsSheet"

    parent: Overlay.overlay
    modal: true
    dim: true
    focus: true
    closePolicy: Popup.CloseOnEscape
    x: Math.round((parent.width - width) / 2)
    y: Math.max(20, Math.round((parent.height - height) / 2))
    width: 460
    padding: 24

    Overlay.modal: Rectangle {
        color: Theme.scrim
    }
    background: Rectangle {
        color: Theme.mainBackground
        radius: 14
        border.color: Theme.hairline
        border.width: 1
    }

    contentItem: ColumnLayout {
        spacing: 14

        RowLayout {
            Layout.fillWidth: true
            Label {
                Layout.fillWidth: true
                text: "Keyboard Shortcuts"
                font.pixelSize: 20
                font.weight: Font.DemiBold
                color: Theme.primary
            }
            PushButton {
                objectName: "shortcutsDoneButton"
                text: "Done"
                onClicked: sheet.close()
            }
        }

        GridLayout {
            Layout.fillWidth: true
            columns: 2
            rowSpacing: 8
            columnSpacing: 16

            Repeater {
                model: ShortcutKeys.entries
                delegate: Label {
                    required property var modelData
                    objectName: "shortcutAction"
                    Layout.row: index
                    Layout.column: 0
                    Layout.fillWidth: true
                    required property int index
                    text: modelData.action
                    wrapMode: Text.Wrap
                    font.pixelSize: 13
                    color: Theme.primary
                }
            }
            Repeater {
                model: ShortcutKeys.entries
                delegate: Label {
                    required property var modelData
                    required property int index
                    objectName: "shortcutKeys"
                    Layout.row: index
                    Layout.column: 1
                    Layout.alignment: Qt.AlignRight
                    text: DisplayText.shortcutText(modelData.keys)
                    font.family: Theme.monospaceFamily
                    font.pixelSize: 12
                    color: Theme.primary
                    leftPadding: 8
                    rightPadding: 8
                    topPadding: 3
                    bottomPadding: 3
                    background: Rectangle {
                        radius: 5
                        color: Theme.raisedFill
                        border.color: Theme.hairline
                        border.width: 1
                    }
                }
            }
        }
    }
}
