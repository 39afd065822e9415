import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// The input card: a notice when the draft would push earlier messages out of the
// model's context, the editing and attachment chips, the attach button, the growing
// prompt field and the send/stop button. Return sends, Shift+Return starts a new line,
// Ctrl+Return sends or stops; Up in an empty field edits the last question and Escape
// leaves an edit.
Item {
    id: composer
    objectName: "composer"

    implicitHeight: card.implicitHeight + 12

    function focusPrompt() {
        promptField.forceActiveFocus()
        promptField.cursorPosition = promptField.length
    }

    // A question put back for editing is ready to type in.
    Connections {
        target: Store
        function onEditingChanged() {
            if (Store.editing)
                composer.focusPrompt()
        }
    }

    Shortcut {
        sequences: ["Ctrl+Return", "Ctrl+Enter"]
        context: Qt.WindowShortcut
        enabled: Store.canSend
        onActivated: Store.sendOrStop()
    }

    Rectangle {
        id: card
        objectName: "composerCard"
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.top: parent.top
        anchors.leftMargin: 28
        anchors.rightMargin: 28
        anchors.topMargin: 12
        implicitHeight: stack.implicitHeight + 32
        radius: 16
        color: Theme.raisedFill
        border.color: Theme.hairline
        border.width: 1

        ColumnLayout {
            id: stack
            anchors.fill: parent
            anchors.margins: 16
            spacing: 10

            Label {
                objectName: "contextNotice"
                visible: Store.draftBeyondContext
                Layout.fillWidth: true
                text: "Sending this leaves earlier messages beyond the model's context."
                elide: Text.ElideRight
                maximumLineCount: 1
                font.pixelSize: 11
                color: Theme.orange
            }

            RowLayout {
                objectName: "editingChip"
                visible: Store.editing
                Layout.fillWidth: true
                spacing: 6

                Icon {
                    name: "pencil"
                    size: 14
                    color: Theme.accent
                }
                Label {
                    text: "Editing your message"
                    font.pixelSize: 11
                    font.weight: Font.Medium
                    color: Theme.primary
                }
                Label {
                    Layout.leftMargin: 4
                    text: "Sending replaces it and the replies after it"
                    font.pixelSize: 11
                    color: Theme.secondary
                    elide: Text.ElideRight
                    Layout.fillWidth: true
                }
                IconButton {
                    objectName: "cancelEditButton"
                    symbol: "xmark.circle.fill"
                    symbolSize: 15
                    symbolColor: Theme.secondary
                    implicitWidth: 22
                    implicitHeight: 22
                    help: "Stop editing"
                    onClicked: Store.cancelEdit()
                }
            }

            RowLayout {
                objectName: "attachmentChip"
                visible: Store.hasAttachment
                Layout.fillWidth: true
                spacing: 6

                Icon {
                    name: "photo"
                    size: 14
                    color: Theme.primary
                }
                Label {
                    text: "Image attached"
                    font.pixelSize: 11
                    color: Theme.primary
                }
                Label {
                    objectName: "visionWarning"
                    visible: !Store.vision
                    Layout.leftMargin: 4
                    text: "Load a vision model to read it"
                    font.pixelSize: 11
                    color: Theme.orange
                }
                Item {
                    Layout.fillWidth: true
                }
                IconButton {
                    objectName: "removeAttachmentButton"
                    accessibleName: "Remove attached image"
                    symbol: "xmark.circle.fill"
                    symbolSize: 15
                    symbolColor: Theme.secondary
                    implicitWidth: 22
                    implicitHeight: 22
                    onClicked: Store.clearAttachment()
                }
            }

            RowLayout {
                Layout.fillWidth: true
                spacing: 8

                IconButton {
                    objectName: "attachButton"
                    Layout.alignment: Qt.AlignBottom
                    Layout.bottomMargin: 2
                    implicitWidth: 28
                    implicitHeight: 30
                    symbol: "plus"
                    symbolSize: 19
                    help: "Attach an image"
                    enabled: !Store.generating
                    onClicked: Store.attachImage()
                }

                ScrollView {
                    id: promptScroll
                    Layout.fillWidth: true
                    Layout.alignment: Qt.AlignBottom
                    // One line up to six, then the field scrolls.
                    Layout.preferredHeight: Math.min(promptField.implicitHeight,
                                                     lines.lineSpacing * 6 + promptField.topPadding + promptField.bottomPadding)
                    ScrollBar.horizontal.policy: ScrollBar.AlwaysOff

                    TextArea {
                        id: promptField
                        objectName: "promptField"
                        Accessible.name: "Ask Vorn"
                        placeholderText: "Ask Vorn…"
                        wrapMode: TextArea.Wrap
                        font.pixelSize: 15
                        color: Theme.primary
                        placeholderTextColor: Theme.secondary
                        topPadding: 6
                        bottomPadding: 6
                        leftPadding: 2
                        rightPadding: 2
                        focus: true
                        background: null
                        text: Store.prompt
                        onTextChanged: if (text !== Store.prompt) Store.prompt = text

                        TextMenuHandler {
                            passesPressOn: true
                        }

                        Keys.onPressed: (event) => {
                            if (event.matches(StandardKey.Redo)) {
                                event.accepted = true
                            } else if (event.key === Qt.Key_Tab || event.key === Qt.Key_Backtab) {
                                // Tab moves on, as it does everywhere else, rather than
                                // typing a tab into the prompt.
                                event.accepted = true
                                const forward = event.key === Qt.Key_Tab && !(event.modifiers & Qt.ShiftModifier)
                                nextItemInFocusChain(forward).forceActiveFocus(forward ? Qt.TabFocusReason : Qt.BacktabFocusReason)
                            } else if (event.key === Qt.Key_Up && event.modifiers === Qt.NoModifier
                                       && length === 0 && !Store.editing) {
                                event.accepted = true
                                Store.editLastQuestion()
                            } else if (event.key === Qt.Key_Escape && Store.editing) {
                                event.accepted = true
                                Store.cancelEdit()
                            } else if (event.key === Qt.Key_Return || event.key === Qt.Key_Enter) {
                                if (event.modifiers & Qt.ShiftModifier)
                                    return
                                event.accepted = true
                                // Return alone hands the prompt to send(), whose own rules
                                // decide; Ctrl+Return is the send/stop control's shortcut.
                                if (event.modifiers & Qt.ControlModifier) {
                                    if (Store.canSend)
                                        Store.sendOrStop()
                                } else {
                                    Store.send()
                                }
                            }
                        }

                        FontMetrics {
                            id: lines
                            font: promptField.font
                        }
                    }
                }

                AbstractButton {
                    id: sendButton
                    objectName: "sendButton"
                    readonly property string help: Store.generating ? "Stop" : DisplayText.sendHelp
                    Layout.alignment: Qt.AlignBottom
                    implicitWidth: 34
                    implicitHeight: 34
                    enabled: Store.canSend
                    hoverEnabled: true
                    focusPolicy: Qt.TabFocus
                    Accessible.name: Store.generating ? "Stop" : "Send"
                    Accessible.description: help
                    // Disabled, the arrow fades with its square.
                    opacity: enabled ? 1 : Theme.disabledSymbolOpacity
                    onClicked: Store.sendOrStop()

                    ToolTip.visible: hovered
                    ToolTip.text: help
                    ToolTip.delay: 600

                    background: Rectangle {
                        radius: 10
                        color: sendButton.pressed ? Theme.accentPressed : Theme.accent
                        border.width: sendButton.visualFocus ? 2 : 0
                        border.color: Theme.focusBorder
                    }
                    contentItem: Icon {
                        objectName: "sendSymbol"
                        name: Store.generating ? "stop.fill" : "arrow.up"
                        size: 17
                        font.weight: Font.DemiBold
                        color: Theme.ink
                    }
                }
            }
        }
    }
}
