import QtQuick
import Vorn
import QtQuick.Controls

// A reply's reasoning, folded under a line that says how long the model thought (or
// that it still is); a click unfolds the reasoning text.
Column {
    id: reasoning

    required property int row
    required property bool open
    required property bool shown
    required property int seconds
    // Whether Tab stops at the toggle; Space then folds or unfolds the reasoning.
    property bool buttonsOnTab: false

    // How long the model thought, or that it still is.
    readonly property string summary: {
        if (reasoning.open)
            return "Thinking\u2026"
        if (reasoning.seconds < 0)
            return "Thought"
        if (reasoning.seconds === 0)
            return "Thought for less than a second"
        return reasoning.seconds === 1 ? "Thought for 1 second"
                                       : "Thought for " + reasoning.seconds + " seconds"
    }

    objectName: "reasoningBlock"
    spacing: 6

    AbstractButton {
        id: toggle
        objectName: "reasoningToggle"
        width: Math.min(reasoning.width, implicitWidth)
        height: 22
        hoverEnabled: true
        focusPolicy: reasoning.buttonsOnTab || activeFocus ? Qt.TabFocus : Qt.NoFocus
        activeFocusOnTab: reasoning.buttonsOnTab || activeFocus
        Accessible.name: reasoning.summary
        onClicked: Store.messageList.setReasoningShown(reasoning.row, !reasoning.shown)

        background: Rectangle {
            radius: 6
            color: "transparent"
            border.width: toggle.visualFocus ? 2 : 0
            border.color: Theme.focusBorder
        }

        contentItem: Row {
            spacing: 4
            Icon {
                anchors.verticalCenter: parent.verticalCenter
                name: reasoning.shown ? "chevron.down" : "chevron.right"
                size: 16
                color: Theme.secondary
            }
            Label {
                objectName: "reasoningLabel"
                anchors.verticalCenter: parent.verticalCenter
                text: reasoning.summary
                font.pixelSize: 13
                font.weight: Font.DemiBold
                color: toggle.hovered ? Theme.primary : Theme.secondary
            }
        }
    }

    Rectangle {
        visible: reasoning.shown
        width: reasoning.width
        height: reasoningText.implicitHeight
        color: "transparent"

        Rectangle {
            width: 2
            height: parent.height
            color: Theme.divider
        }

        TextEdit {
            id: reasoningText
            objectName: "reasoningText"
            x: 14
            width: parent.width - 14
            textFormat: TextEdit.PlainText
            readOnly: true
            selectByMouse: true
            wrapMode: TextEdit.Wrap
            font.pixelSize: 14
            color: Theme.secondary
            selectionColor: Theme.selection
            selectedTextColor: Theme.primary

            // Fed only while unfolded: a folded block lays nothing out.
            StreamedText {
                document: reasoningText.textDocument
                model: reasoning.shown ? Store.messageList : null
                row: reasoning.row
                role: "reasoning"
            }

            TextLineSpacing {
                document: reasoningText.textDocument
                spacing: 4
            }
        }
    }
}
