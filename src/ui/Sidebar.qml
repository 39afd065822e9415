import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// Branding, new conversation, search, the conversation list, the library entry, the
// engine indicator and the appearance switch.
Rectangle {
    id: sidebar
    objectName: "sidebar"

    property alias search: searchField.text

    color: Theme.sidebarBackground

    // Ctrl+F: the search field, its text selected.
    function focusSearch() {
        searchField.forceActiveFocus()
        searchField.selectAll()
    }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: 20
        spacing: 14

        RowLayout {
            objectName: "branding"
            // Room for the window buttons that macOS draws inside the title bar.
            Layout.topMargin: DisplayText.mac ? 28 : 4
            spacing: 11

            AppIcon {
                Layout.preferredWidth: 36
                Layout.preferredHeight: 36
            }
            ColumnLayout {
                spacing: 1
                Label {
                    text: "Vorn"
                    font.pixelSize: 24
                    font.weight: Font.DemiBold
                    color: Theme.primary
                }
                Label {
                    text: "On your instrument."
                    font.pixelSize: 11
                    color: Theme.secondary
                }
            }
        }

        AbstractButton {
            id: newConversation
            objectName: "newConversationButton"
            Accessible.name: "New conversation"
            Layout.fillWidth: true
            Layout.topMargin: 6
            enabled: !Store.generating
            hoverEnabled: true
            padding: 10
            opacity: enabled ? 1 : Theme.disabledOpacity
            onClicked: Store.newChat()

            background: Rectangle {
                radius: 9
                color: Theme.raisedFill
                border.width: newConversation.visualFocus ? 2 : 0
                border.color: Theme.focusBorder
                Rectangle {
                    anchors.fill: parent
                    radius: 9
                    color: Theme.quietFill
                    visible: newConversation.hovered && newConversation.enabled
                }
            }
            contentItem: RowLayout {
                spacing: 8
                Icon {
                    name: "square.and.pencil"
                    size: 17
                }
                Label {
                    Layout.fillWidth: true
                    text: "New conversation"
                    font.pixelSize: 13
                    font.weight: Font.Medium
                    color: Theme.primary
                }
            }
        }

        RoundedField {
            id: searchField
            objectName: "searchField"
            Accessible.name: placeholderText
            Layout.fillWidth: true
            placeholderText: "Search conversations"
            // Typing is likely next: the texts are folded for searching now, not on the
            // first key.
            onActiveFocusChanged: if (activeFocus) conversationFilter.prepare()
        }

        Label {
            Layout.topMargin: 4
            text: "CONVERSATIONS"
            font.pixelSize: 10
            font.weight: Font.DemiBold
            font.letterSpacing: 1.5
            color: Theme.secondary
        }

        ListView {
            id: conversations
            objectName: "conversationList"
            Layout.fillWidth: true
            Layout.fillHeight: true
            Layout.topMargin: -6
            clip: true
            spacing: 2
            boundsBehavior: Flickable.StopAtBounds
            model: ConversationFilter {
                id: conversationFilter
                objectName: "conversationFilter"
                conversations: Store.conversationList
                search: searchField.text
            }
            // The conversation whose title is being edited in its row.
            property string renamingId: ""

            // The selected conversation's row takes the keyboard, in view.
            function focusSelected() {
                const row = conversationFilter.rowOf(Store.selectedID)
                if (row < 0) {
                    forceActiveFocus()
                    return
                }
                positionViewAtIndex(row, ListView.Contain)
                const item = itemAtIndex(row)
                if (item)
                    item.forceActiveFocus()
                else
                    forceActiveFocus()
            }

            function openMenuForSelected() {
                const item = itemAtIndex(conversationFilter.rowOf(Store.selectedID))
                if (item)
                    conversationMenu.openFor(item as ConversationRow, 12, item.height - 4)
            }

            // With the list in hand: Delete (the Mac's delete key too) removes the
            // selected conversation, the menu key or Shift+F10 opens its menu, F2
            // renames it, and the arrows move the selection.
            Keys.onPressed: (event) => {
                if (renamingId !== "")
                    return
                const plain = event.modifiers === Qt.NoModifier || event.modifiers === Qt.KeypadModifier
                if (plain && (event.key === Qt.Key_Delete || (DisplayText.mac && event.key === Qt.Key_Backspace))) {
                    event.accepted = true
                    Store.deleteConversation(Store.selectedID)
                    Qt.callLater(focusSelected) // qmllint disable type
                } else if (event.key === Qt.Key_Menu
                           || (event.key === Qt.Key_F10 && event.modifiers === Qt.ShiftModifier)) {
                    event.accepted = true
                    openMenuForSelected()
                } else if (plain && event.key === Qt.Key_F2) {
                    event.accepted = true
                    renamingId = Store.selectedID
                } else if (plain && (event.key === Qt.Key_Up || event.key === Qt.Key_Down)) {
                    event.accepted = true
                    const next = conversationFilter.idAt(conversationFilter.rowOf(Store.selectedID)
                                                         + (event.key === Qt.Key_Up ? -1 : 1))
                    if (next !== "")
                        Store.selectConversation(next)
                    focusSelected()
                }
            }

            // Rows span the sidebar like the field and buttons above them; the scroll
            // bar shows over their end only while the list is being scrolled. The
            // delegate reads ids of this file, as it may; qmllint of Qt 6.4 cannot tell.
            delegate: ConversationRow {
                id: row
                width: conversations.width // qmllint disable unqualified
                renaming: conversations.renamingId === conversationId // qmllint disable unqualified
                onMenuRequested: (position) => conversationMenu.openFor(row, position.x, position.y) // qmllint disable unqualified
                onRenameRequested: conversations.renamingId = conversationId // qmllint disable unqualified
                onRenameFinished: conversations.renamingId = "" // qmllint disable unqualified
            }
            ScrollBar.vertical: ScrollBar {
                policy: ScrollBar.AsNeeded
            }
        }

        AbstractButton {
            id: libraryButton
            objectName: "sidebarLibraryButton"
            Accessible.name: "Model library"
            Layout.fillWidth: true
            hoverEnabled: true
            padding: 12
            onClicked: Store.showLibrary = true

            background: Rectangle {
                radius: 10
                color: libraryButton.hovered ? Theme.raisedFill : Theme.quietFill
                border.width: libraryButton.visualFocus ? 2 : 0
                border.color: Theme.focusBorder
            }
            contentItem: RowLayout {
                spacing: 8
                Icon {
                    name: "square.stack.3d.up"
                    size: 17
                }
                Label {
                    Layout.fillWidth: true
                    text: "Model library"
                    font.pixelSize: 13
                    color: Theme.primary
                }
                Label {
                    objectName: "libraryCount"
                    text: String(Store.modelList.modelCount)
                    font.pixelSize: 13
                    color: Theme.secondary
                }
            }
        }

        RowLayout {
            objectName: "engineIndicator"
            spacing: 7
            Rectangle {
                objectName: "engineDot"
                width: 6
                height: 6
                radius: 3
                color: Store.ready ? Theme.accent : Theme.orange
            }
            Label {
                objectName: "engineText"
                text: Store.ready ? "Private · local engine" : "Starting engine…"
                font.pixelSize: 11
                color: Theme.secondary
            }
        }

        AppearanceSwitch {
            Layout.fillWidth: true
        }
    }

    ConversationMenu {
        id: conversationMenu
        onRenameChosen: (conversationId) => conversations.renamingId = conversationId
    }
}
