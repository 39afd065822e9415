import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// One message: a caption, the picture if it has one, and the selectable text (a
// reply's as Markdown). The user's messages sit on the raised fill and can be edited;
// the assistant's have a copy button, and the last one a button that asks for it again.
// Above the first message the model still saw, a divider says that earlier ones were
// left out. For the keyboard and a screen reader the block is one item of the
// transcript's list: it says who speaks and what, and its buttons take Tab only while it
// is the list's current item and the keyboard is in the list.
Item {
    id: block

    required property int index
    required property string messageId
    required property string role
    required property string image
    required property bool hasImage
    required property bool isUser
    required property bool hasText
    required property bool hasReasoning
    required property bool reasoningOpen
    required property bool reasoningShown
    required property int thinkingSeconds

    // The reply is still being written.
    readonly property bool writing: Store.generating && block.index === Store.messageList.count - 1

    // Whether Tab stops at the buttons inside: only those of the list's current item,
    // and only while the keyboard is in the list, so the list stays one stop of the
    // window's Tab order.
    readonly property bool buttonsOnTab: ListView.isCurrentItem && keyboardInList
    // Set by the list while the keyboard is on it or inside it.
    property bool keyboardInList: false

    objectName: "messageBlock"
    // The list's current message is where Tab lands in the list. Each keeps Tab while it
    // has the keyboard, as Qt requires.
    activeFocusOnTab: ListView.isCurrentItem || activeFocus
    Accessible.role: Accessible.ListItem
    Accessible.name: block.isUser ? "You" : "Vorn"
    // What a screen reader reads: the words without any reasoning, once written. Taken
    // from the list when the reply ends rather than per token: a string property holds
    // its text in the script heap, and a copy of the whole reply per token kept the
    // collector running hundreds of times a second.
    Accessible.description: block.writing ? "" : Store.messageList.answerAt(block.index)
    Accessible.focusable: true
    Accessible.selected: ListView.isCurrentItem
    implicitHeight: fill.y + column.implicitHeight + 40

    ContextDivider {
        id: divider
        visible: Store.contextStartID === block.messageId
        width: block.width
        y: 6
    }

    Rectangle {
        id: fill
        objectName: "messageFill"
        y: divider.visible ? divider.height + 20 : 0
        width: block.width
        height: column.implicitHeight + 40
        radius: 14
        color: block.isUser ? Theme.raisedFill : "transparent"
    }

    // Where the keyboard is in the list.
    Rectangle {
        objectName: "messageFocusRing"
        visible: block.activeFocus
        // On the fill's own edge, so a block at the edge of the view shows all of it.
        x: fill.x
        y: fill.y
        width: fill.width
        height: fill.height
        radius: fill.radius
        color: "transparent"
        border.width: 2
        border.color: Theme.focusBorder
    }

    // A plain column, not a layout: a layout reads the text's implicit width, and a
    // TextEdit then lays its whole document out twice on every change.
    Column {
        id: column
        x: 20
        y: fill.y + 20
        width: block.width - 40
        spacing: 10

        RowLayout {
            width: column.width
            height: 18
            Label {
                objectName: "messageCaption"
                text: block.isUser ? "YOU" : "VORN"
                font.pixelSize: 10
                font.weight: Font.DemiBold
                font.letterSpacing: 1.5
                color: block.isUser ? Theme.gray : Theme.accent
            }
            Item {
                Layout.fillWidth: true
            }
            IconButton {
                objectName: "editButton"
                focusPolicy: block.buttonsOnTab || activeFocus ? Qt.TabFocus : Qt.NoFocus
                activeFocusOnTab: block.buttonsOnTab || activeFocus
                visible: block.isUser
                enabled: !Store.generating
                symbol: "pencil"
                symbolSize: 13
                symbolColor: Theme.secondary
                implicitWidth: 24
                implicitHeight: 20
                help: "Edit"
                onClicked: Store.beginEdit(block.messageId)
            }
            IconButton {
                objectName: "regenerateButton"
                focusPolicy: block.buttonsOnTab || activeFocus ? Qt.TabFocus : Qt.NoFocus
                activeFocusOnTab: block.buttonsOnTab || activeFocus
                // The last reply, when it answers something.
                visible: block.role === "assistant" && block.index > 0 && block.index === Store.messageList.count - 1
                enabled: Store.canRegenerate
                symbol: "arrow.clockwise"
                symbolSize: 14
                symbolColor: Theme.secondary
                implicitWidth: 24
                implicitHeight: 20
                help: "Regenerate"
                onClicked: Store.regenerate()
            }
            IconButton {
                objectName: "copyButton"
                focusPolicy: block.buttonsOnTab || activeFocus ? Qt.TabFocus : Qt.NoFocus
                activeFocusOnTab: block.buttonsOnTab || activeFocus
                visible: block.role === "assistant" && block.hasText
                symbol: "doc.on.doc"
                symbolSize: 13
                symbolColor: Theme.secondary
                implicitWidth: 24
                implicitHeight: 20
                help: "Copy response"
                // Read when clicked: the block holds no copy of a text that grows per token.
                onClicked: Clipboard.copyText(Store.messageList.textAt(block.index))
            }
        }

        MessageImage {
            objectName: "messageImage"
            visible: block.hasImage && valid
            source: block.image
        }

        BusyIndicator {
            objectName: "replyBusy"
            visible: !block.hasText && Store.generating
            running: visible
            width: 22
            height: 22
        }

        // A reply, as Markdown.
        Loader {
            active: !block.isUser
            visible: active && (block.hasText || !Store.generating)
            width: column.width
            // The component reads ids of this file, as it may; Qt 6.4 lints cannot tell.
            // qmllint disable unqualified
            sourceComponent: ReplyView {
                row: block.index
                hasReasoning: block.hasReasoning
                reasoningOpen: block.reasoningOpen
                reasoningShown: block.reasoningShown
                thinkingSeconds: block.thinkingSeconds
                streaming: block.writing
                buttonsOnTab: block.buttonsOnTab
            }
            // qmllint enable unqualified
        }

        // The user's words, as typed.
        TextEdit {
            id: body
            objectName: block.isUser ? "messageText" : ""
            visible: block.isUser && (block.hasText || !Store.generating)
            width: column.width
            textFormat: TextEdit.PlainText
            readOnly: true
            selectByMouse: true
            persistentSelection: false
            wrapMode: TextEdit.Wrap
            font.pixelSize: 15
            color: Theme.primary
            selectionColor: Theme.selection
            selectedTextColor: Theme.primary

            // Filled from the model without script; a growing reply is appended per frame.
            StreamedText {
                document: body.textDocument
                model: block.isUser ? Store.messageList : null
                row: block.index
            }

            TextLineSpacing {
                document: body.textDocument
                spacing: 6
            }

            TextMenuHandler {}
        }
    }
}
