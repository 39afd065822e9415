import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// One message: a caption, the picture if it has one, and the selectable text. The
// user's messages sit on the raised fill; the assistant's have a copy button.
Rectangle {
    id: block

    required property int index
    required property string messageId
    required property string role
    required property string text
    required property string image
    required property bool hasImage
    required property bool isUser

    // What the text view holds. While a reply streams, new text is taken in every 32 ms
    // at most and appended, so a fast engine costs one small layout per batch of tokens
    // rather than a layout of the whole reply per token. The stored text is untouched
    // and the last batch always arrives.
    property string shownText

    function showText() {
        const full = block.text
        if (shownText.length > 0 && full.length > shownText.length && full.startsWith(shownText))
            body.insert(body.length, full.substring(shownText.length))
        else if (full !== shownText)
            body.text = full
        shownText = full
    }

    objectName: "messageBlock"
    implicitHeight: column.implicitHeight + 40
    radius: 14
    color: isUser ? Theme.raisedFill : "transparent"

    Component.onCompleted: showText()
    onTextChanged: {
        if (store.generating && shownText.length > 0 && text.startsWith(shownText)) {
            if (!batch.running)
                batch.start()
        } else {
            batch.stop()
            showText()
        }
    }

    Timer {
        id: batch
        interval: 32
        onTriggered: block.showText()
    }

    Connections {
        target: store
        function onGeneratingChanged() {
            if (!store.generating) {
                batch.stop()
                block.showText()
            }
        }
    }

    ColumnLayout {
        id: column
        anchors.fill: parent
        anchors.margins: 20
        spacing: 10

        RowLayout {
            Layout.fillWidth: true
            Layout.preferredHeight: 18
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
                visible: block.role === "assistant" && block.text.length > 0
                symbol: "doc.on.doc"
                symbolSize: 13
                symbolColor: Theme.secondary
                implicitWidth: 24
                implicitHeight: 20
                help: "Copy response"
                onClicked: Clipboard.copyText(block.text)
            }
        }

        MessageImage {
            objectName: "messageImage"
            visible: block.hasImage && valid
            source: block.image
            Layout.preferredWidth: implicitWidth
            Layout.preferredHeight: implicitHeight
        }

        BusyIndicator {
            objectName: "replyBusy"
            visible: block.text.length === 0 && store.generating
            running: visible
            Layout.preferredWidth: 22
            Layout.preferredHeight: 22
        }

        TextEdit {
            id: body
            objectName: "messageText"
            visible: !(block.text.length === 0 && store.generating)
            Layout.fillWidth: true
            textFormat: TextEdit.PlainText
            readOnly: true
            selectByMouse: true
            persistentSelection: false
            wrapMode: TextEdit.Wrap
            font.pixelSize: 15
            color: Theme.primary
            selectionColor: Qt.rgba(Theme.tint.r, Theme.tint.g, Theme.tint.b, 0.35)
            selectedTextColor: Theme.primary

            TextLineSpacing {
                document: body.textDocument
                spacing: 6
            }
        }
    }
}
