import QtQuick
import Vorn
import QtQuick.Controls

// What can be done to one conversation of the sidebar: rename, pin or unpin, delete.
// One menu serves every row; a conversation whose reply is being written stays.
Menu {
    id: menu
    objectName: "conversationMenu"

    property string conversationId
    property bool pinned: false

    signal renameChosen(string conversationId)

    // Opens for that row, at a point of it.
    function openFor(row: ConversationRow, x: real, y: real) {
        conversationId = row.conversationId
        pinned = row.pinned
        popup(row, x, y)
    }

    MenuItem {
        objectName: "renameItem"
        text: "Rename"
        onTriggered: menu.renameChosen(menu.conversationId)
    }
    MenuItem {
        objectName: "pinItem"
        text: menu.pinned ? "Unpin" : "Pin"
        onTriggered: Store.setPinned(menu.conversationId, !menu.pinned)
    }
    MenuSeparator {}
    MenuItem {
        objectName: "deleteItem"
        opacity: enabled ? 1 : Theme.disabledOpacity
        text: "Delete"
        enabled: Store.replyingID !== menu.conversationId
        onTriggered: Store.deleteConversation(menu.conversationId)
    }
}
