import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// Shown for a while after a conversation was deleted or a question edited: what
// happened, Undo, and a button that lets it go at once.
Rectangle {
    id: bar
    objectName: "undoBar"

    visible: Store.canUndo
    implicitWidth: Math.min(row.implicitWidth + 28, 460)
    implicitHeight: 42
    radius: 10
    color: Theme.dark ? Qt.rgba(0.2, 0.235, 0.28, 1) : Qt.rgba(0.17, 0.18, 0.2, 1)
    border.color: Theme.dark ? Qt.rgba(1, 1, 1, 0.1) : "transparent"
    border.width: 1

    RowLayout {
        id: row
        anchors.fill: parent
        anchors.leftMargin: 16
        anchors.rightMargin: 8
        spacing: 10

        Label {
            objectName: "undoText"
            Layout.fillWidth: true
            text: Store.undoText
            elide: Text.ElideMiddle
            maximumLineCount: 1
            font.pixelSize: 13
            color: Qt.rgba(0.95, 0.96, 0.97, 1)
        }
        AbstractButton {
            id: undoButton
            objectName: "undoButton"
            text: "Undo"
            hoverEnabled: true
            focusPolicy: Qt.NoFocus
            leftPadding: 10
            rightPadding: 10
            topPadding: 5
            bottomPadding: 5
            onClicked: Store.undo()
            background: Rectangle {
                radius: 6
                color: undoButton.pressed ? Qt.rgba(1, 1, 1, 0.18)
                                          : (undoButton.hovered ? Qt.rgba(1, 1, 1, 0.12) : "transparent")
            }
            contentItem: Label {
                text: undoButton.text
                font.pixelSize: 13
                font.weight: Font.DemiBold
                color: Qt.lighter(Theme.accent, 1.35)
            }
        }
        IconButton {
            objectName: "dismissUndoButton"
            implicitWidth: 26
            implicitHeight: 26
            symbol: "xmark"
            symbolSize: 15
            symbolColor: Qt.rgba(0.95, 0.96, 0.97, 0.7)
            help: "Dismiss"
            onClicked: Store.dismissUndo()
        }
    }
}
