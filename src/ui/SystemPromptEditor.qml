import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// The selected conversation's system prompt: what the model is told before anything
// else. Save gives the conversation a prompt of its own (an empty one sends none);
// "Use default" goes back to the library's default.
Popup {
    id: editor
    objectName: "systemPromptEditor"

    // The text the editor opened with; Save acts only on a change.
    property string shownText: ""

    modal: true
    dim: false
    focus: true
    closePolicy: Popup.CloseOnEscape | Popup.CloseOnPressOutside
    width: 400
    padding: 18

    onAboutToShow: {
        shownText = Store.systemPrompt
        promptBox.text = shownText
    }
    onOpened: {
        promptBox.field.forceActiveFocus()
        promptBox.field.cursorPosition = promptBox.field.length
    }

    background: Rectangle {
        color: Theme.elevatedBackground
        radius: 12
        border.color: Theme.hairline
        border.width: 1
    }

    // The prompt box is named for the focus and the text it opens with; the content is
    // made at once.
    contentItem: ColumnLayout { // qmllint disable deferred-property-id
        spacing: 10

        Label {
            objectName: "systemPromptTitle"
            text: "System prompt"
            font.pixelSize: 14
            font.weight: Font.DemiBold
            color: Theme.primary
        }
        Label {
            objectName: "systemPromptSource"
            Layout.fillWidth: true
            text: Store.hasSystemOverride ? "This conversation has a prompt of its own."
                                          : "This conversation uses the default from the model library."
            wrapMode: Text.Wrap
            font.pixelSize: 11
            color: Theme.secondary
        }
        RoundedTextArea {
            id: promptBox
            Layout.fillWidth: true
            Layout.preferredHeight: 130
            fieldName: "systemPromptField"
            accessibleName: "System prompt for this conversation"
            placeholderText: "How should the model answer in this conversation?"
        }
        RowLayout {
            Layout.fillWidth: true
            spacing: 8
            PushButton {
                objectName: "useDefaultButton"
                text: "Use default"
                enabled: Store.hasSystemOverride
                onClicked: {
                    Store.clearSystemOverride()
                    editor.close()
                }
            }
            Item {
                Layout.fillWidth: true
            }
            PushButton {
                objectName: "cancelSystemPromptButton"
                text: "Cancel"
                onClicked: editor.close()
            }
            PushButton {
                objectName: "saveSystemPromptButton"
                text: "Save"
                prominent: true
                enabled: promptBox.text !== editor.shownText
                onClicked: {
                    Store.setSystemOverride(promptBox.text)
                    editor.close()
                }
            }
        }
    }
}
