import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// One conversation in the sidebar. While a reply is generating a click changes nothing.
AbstractButton {
    id: row

    required property string conversationId
    required property string title
    required property bool selected

    objectName: "conversationRow"
    hoverEnabled: true
    padding: 10
    onClicked: Store.selectConversation(conversationId)

    background: Rectangle {
        radius: 8
        color: row.selected ? Theme.raisedFill : (row.hovered ? Theme.quietFill : "transparent")
    }
    contentItem: RowLayout {
        spacing: 9
        Icon {
            name: "text.bubble"
            size: 15
            color: row.selected ? Theme.accent : Theme.gray
        }
        Label {
            Layout.fillWidth: true
            text: row.title
            elide: Text.ElideRight
            maximumLineCount: 1
            font.pixelSize: 12
            font.weight: row.selected ? Font.Medium : Font.Normal
            color: Theme.primary
        }
    }
}
