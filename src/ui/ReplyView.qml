import QtQuick
import Vorn

// A reply's text as Markdown: its reasoning folded above, then runs of selectable
// prose and code blocks. The text reaches the views from the message list in C++.
Item {
    id: reply

    property int row: -1
    property bool hasReasoning: false
    property bool reasoningOpen: false
    property bool reasoningShown: false
    property int thinkingSeconds: -1
    // The reply is still being written.
    property bool streaming: false
    // Whether Tab stops at its buttons (the reasoning toggle, each code block's copy).
    property bool buttonsOnTab: false
    // The answer the view shows now, as written (Markdown); read on demand only.
    readonly property alias text: segments.shownText

    objectName: "messageText"
    implicitHeight: content.height

    ReplySelection {
        id: selection
        objectName: "replySelection"
        container: content
    }

    // Over the text items, watching the mouse beside them: they keep their own
    // presses and drags, and one drag can still select across them.
    Item {
        anchors.fill: parent
        z: 1

        PointHandler {
            id: handler
            acceptedButtons: Qt.LeftButton | Qt.RightButton
            acceptedDevices: PointerDevice.Mouse | PointerDevice.TouchPad
            onActiveChanged: {
                if (!active)
                    return
                const point = parent.mapToItem(content, handler.point.pressPosition)
                if (handler.point.pressedButtons & Qt.RightButton)
                    selection.contextPress(point)
                else
                    selection.press(point)
            }
            onPointChanged: {
                if (active && (handler.point.pressedButtons & Qt.LeftButton))
                    selection.drag(parent.mapToItem(content, handler.point.position))
            }
        }
    }

    Column {
        id: content
        width: reply.width
        spacing: 10

        ReasoningBlock {
            width: reply.width
            visible: reply.hasReasoning
            row: reply.row
            // A section left open by a reply that ended is no longer being thought.
            open: reply.reasoningOpen && reply.streaming
            shown: reply.reasoningShown
            seconds: reply.thinkingSeconds
            buttonsOnTab: reply.buttonsOnTab
        }

        Repeater {
            model: MarkdownSegmentList {
                id: segments
                model: Store.messageList
                row: reply.row
                streaming: reply.streaming
            }

            // The delegate and its components read ids of this file, as they may; Qt 6.4
            // lints cannot tell.
            // qmllint disable unqualified
            delegate: Item {
                id: segment

                required property int index
                required property bool isCode
                required property var units
                required property string language
                required property int indent

                width: reply.width
                height: loader.implicitHeight

                Loader {
                    id: loader
                    x: segment.isCode ? segment.indent * 22 : 0
                    width: segment.width - x
                    sourceComponent: segment.isCode ? codeComponent : proseComponent
                }

                Component {
                    id: codeComponent
                    CodeBlock {
                        language: segment.language
                        segmentList: segments
                        row: segment.index
                        indent: segment.indent
                        buttonsOnTab: reply.buttonsOnTab
                        span: selection
                    }
                }

                Component {
                    id: proseComponent
                    // The wrapper keeps the text's implicit width unread: reading it would
                    // make the text lay its whole document out again, unwrapped, on every
                    // change.
                    Item {
                        implicitHeight: prose.height

                        TextEdit {
                            id: prose
                            objectName: "replyProse"
                            // The Edit menu copies and selects through the reply's span.
                            readonly property ReplySelection span: selection
                            width: parent.width
                            textFormat: TextEdit.PlainText
                            readOnly: true
                            selectByMouse: true
                            persistentSelection: false
                            wrapMode: TextEdit.Wrap
                            font.pixelSize: 15
                            color: Theme.primary
                            selectionColor: Theme.selection
                            selectedTextColor: Theme.primary
                            // Only links the prose gave an anchor open, and only when clicked.
                            onLinkActivated: (link) => writer.openLink(link)

                            HoverHandler {
                                cursorShape: prose.hoveredLink.length > 0 ? Qt.PointingHandCursor : Qt.IBeamCursor
                            }

                            TextMenuHandler {
                                span: selection
                            }

                            MarkdownProse {
                                id: writer
                                document: prose.textDocument
                                units: segment.units
                                textColor: Theme.primary
                                secondaryColor: Theme.secondary
                                linkColor: Theme.dark ? Qt.lighter(Theme.tint, 1.6) : Theme.tint
                                codeFill: Theme.raisedFill
                                hairline: Theme.divider
                                monospaceFamily: Theme.monospaceFamily
                            }

                            TextLineSpacing {
                                document: prose.textDocument
                                spacing: 6
                            }
                        }
                    }
                }
            }
        }
        // qmllint enable unqualified
    }
}
