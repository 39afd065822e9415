import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// One message: a caption, the picture if it has one, and the selectable text (a
// reply's as Markdown). The user's messages sit on the raised fill; the assistant's
// have a copy button. Above the first message the model still saw, a divider says that
// earlier ones were left out.
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

    objectName: "messageBlock"
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
                objectName: "copyButton"
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
                streaming: Store.generating && block.index === Store.messageList.count - 1
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
        }
    }
}
