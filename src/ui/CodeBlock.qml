import QtQuick
import Vorn
import QtQuick.Controls

// A fenced code block of a reply: its language, a copy button, and the code in the
// monospaced face; long lines scroll sideways instead of wrapping.
Rectangle {
    id: codeBlock

    required property string language
    // The reply's segments and this block's row in them. The code goes from the list
    // to the text in C++ and grows in place while it streams: as a string property it
    // would be copied whole into the script heap and laid out again whole each frame.
    required property MarkdownSegmentList segmentList
    required property int row
    required property int indent
    // Whether Tab stops at the copy button.
    property bool buttonsOnTab: false
    // The selection across the reply this block is part of.
    property ReplySelection span: null

    objectName: "codeBlock"
    implicitHeight: header.height + codeScroll.height
    radius: 8
    color: Theme.raisedFill
    border.color: Theme.hairline
    border.width: 1

    Item {
        id: header
        width: codeBlock.width
        height: 30

        Label {
            objectName: "codeLanguage"
            x: 12
            anchors.verticalCenter: parent.verticalCenter
            width: parent.width - copyCode.width - 28
            elide: Text.ElideRight
            text: codeBlock.language
            font.pixelSize: 11
            font.weight: Font.DemiBold
            color: Theme.secondary
        }

        IconButton {
            id: copyCode
            objectName: "copyCodeButton"
            focusPolicy: codeBlock.buttonsOnTab || activeFocus ? Qt.TabFocus : Qt.NoFocus
            activeFocusOnTab: codeBlock.buttonsOnTab || activeFocus
            anchors.right: parent.right
            anchors.rightMargin: 6
            anchors.verticalCenter: parent.verticalCenter
            symbol: "doc.on.doc"
            symbolSize: 13
            symbolColor: Theme.secondary
            implicitWidth: 24
            implicitHeight: 20
            help: "Copy code"
            onClicked: Clipboard.copyText(codeBlock.segmentList.codeAt(codeBlock.row))
        }
    }

    Flickable {
        id: codeScroll
        objectName: "codeScroll"
        y: header.height
        width: codeBlock.width
        height: codeText.implicitHeight + 12 + (horizontalBar.visible ? horizontalBar.height : 0)
        contentWidth: codeText.implicitWidth + 24
        contentHeight: height
        flickableDirection: Flickable.HorizontalFlick
        boundsBehavior: Flickable.StopAtBounds
        // Dragging selects the code; the bar and the wheel scroll it.
        interactive: false
        clip: true

        TextEdit {
            id: codeText
            objectName: "codeText"
            // The Edit menu copies and selects through the reply's span.
            readonly property ReplySelection span: codeBlock.span
            x: 12
            textFormat: TextEdit.PlainText
            wrapMode: TextEdit.NoWrap
            readOnly: true
            selectByMouse: true
            font.family: Theme.monospaceFamily
            font.pixelSize: 13
            color: Theme.primary
            selectionColor: Theme.selection
            selectedTextColor: Theme.primary

            StreamedText {
                document: codeText.textDocument
                model: codeBlock.segmentList
                row: codeBlock.row
                role: "code"
            }

            TextMenuHandler {
                span: codeBlock.span
            }
        }

        ScrollBar.horizontal: ScrollBar {
            id: horizontalBar
            policy: ScrollBar.AsNeeded
        }

        WheelHandler {
            // Sideways only: the transcript takes the vertical wheel.
            acceptedModifiers: Qt.ShiftModifier
            onWheel: (event) => {
                const step = event.angleDelta.y !== 0 ? event.angleDelta.y / 120 * 60 : event.angleDelta.x / 120 * 60
                const end = Math.max(0, codeScroll.contentWidth - codeScroll.width)
                codeScroll.contentX = Math.max(0, Math.min(end, codeScroll.contentX - step))
            }
        }
    }
}
