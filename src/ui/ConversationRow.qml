import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// One conversation in the sidebar. While a reply is generating a click changes nothing.
// A double click, or Rename in its menu, edits the title in place: Return keeps it,
// Escape leaves it as it was. A right click asks the sidebar for the row's menu.
AbstractButton {
    id: row

    required property string conversationId
    required property string title
    required property bool selected
    required property bool pinned

    // Whether the title is being edited here; the list says which row that is.
    property bool renaming: false

    signal menuRequested(point position)
    signal renameRequested()
    signal renameFinished()

    objectName: "conversationRow"
    Accessible.name: title
    Accessible.selectable: true
    Accessible.selected: selected
    hoverEnabled: true
    focusPolicy: Qt.StrongFocus
    padding: 10
    // The title field is a little taller than the title; the row keeps its height.
    topPadding: renaming ? 6 : 10
    bottomPadding: renaming ? 6 : 10
    onClicked: Store.selectConversation(conversationId)
    onDoubleClicked: renameRequested()

    onRenamingChanged: {
        if (!renaming)
            return
        titleField.text = title
        titleField.forceActiveFocus()
        titleField.selectAll()
    }

    function commitRename() {
        if (!renaming)
            return
        Store.renameConversation(conversationId, titleField.text)
        renameFinished()
    }

    TapHandler {
        acceptedButtons: Qt.RightButton
        onTapped: (eventPoint) => row.menuRequested(eventPoint.position)
    }

    background: Rectangle {
        radius: 8
        color: row.selected ? Theme.raisedFill : (row.hovered ? Theme.quietFill : "transparent")
        border.width: row.visualFocus ? 2 : 0
        border.color: Theme.focusBorder
    }
    // The title field is named so the row can start and end an edit; the content is
    // made at once, which a row of a few items can afford.
    contentItem: RowLayout { // qmllint disable deferred-property-id
        spacing: 9
        Icon {
            name: "text.bubble"
            size: 15
            color: row.selected ? Theme.accent : Theme.gray
        }
        Label {
            objectName: "conversationTitle"
            Layout.fillWidth: true
            visible: !row.renaming
            text: row.title
            elide: Text.ElideRight
            maximumLineCount: 1
            font.pixelSize: 12
            font.weight: row.selected ? Font.Medium : Font.Normal
            color: Theme.primary
        }
        RoundedField {
            id: titleField
            objectName: "renameField"
            Layout.fillWidth: true
            implicitHeight: 23
            visible: row.renaming
            font.pixelSize: 12
            topPadding: 3
            bottomPadding: 3
            leftPadding: 6
            rightPadding: 6
            // Return or Enter keep the title and hand the keyboard back to the row; so
            // does a click elsewhere, which keeps the keyboard. Escape keeps nothing.
            onAccepted: {
                row.commitRename()
                row.forceActiveFocus()
            }
            onEditingFinished: row.commitRename()
            Keys.onEscapePressed: {
                row.renameFinished()
                row.forceActiveFocus()
            }
        }
        Icon {
            objectName: "pinIcon"
            visible: row.pinned && !row.renaming
            name: "pin.fill"
            size: 13
            color: row.selected ? Theme.accent : Theme.gray
        }
    }
}
