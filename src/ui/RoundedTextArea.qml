import QtQuick
import Vorn
import QtQuick.Controls

// A multi-line text field with a rounded border that scrolls when its text is longer
// than it. As with the single-line fields, there is no Redo.
Rectangle {
    id: box

    property alias text: area.text
    property alias placeholderText: area.placeholderText
    property alias fontSize: area.font.pixelSize
    // The object name of the text field inside, for finding it.
    property string fieldName
    // What a screen reader says for the field.
    property string accessibleName
    readonly property alias field: area
    // The height that shows the whole text.
    readonly property real fittingHeight: area.implicitHeight + 4

    radius: 8
    color: Theme.dark ? Qt.rgba(1, 1, 1, 0.06) : Theme.system.base
    border.width: area.activeFocus ? 2 : 1
    border.color: area.activeFocus ? Theme.focusBorder : (Theme.dark ? Qt.rgba(1, 1, 1, 0.1) : Qt.rgba(0, 0, 0, 0.13))

    ScrollView {
        anchors.fill: parent
        anchors.margins: 2
        ScrollBar.horizontal.policy: ScrollBar.AlwaysOff

        TextArea {
            id: area
            objectName: box.fieldName
            Accessible.name: box.accessibleName
            wrapMode: TextArea.Wrap
            font.pixelSize: 13
            color: Theme.primary
            placeholderTextColor: Theme.secondary
            selectionColor: Theme.selection
            selectedTextColor: Theme.primary
            topPadding: 5
            bottomPadding: 5
            background: null
            TextMenuHandler {
                passesPressOn: true
            }

            Keys.onPressed: (event) => {
                if (event.matches(StandardKey.Redo)) {
                    event.accepted = true
                } else if (event.key === Qt.Key_Tab || event.key === Qt.Key_Backtab) {
                    // Tab moves on, as in the composer, rather than typing a tab.
                    event.accepted = true
                    const forward = event.key === Qt.Key_Tab && !(event.modifiers & Qt.ShiftModifier)
                    nextItemInFocusChain(forward).forceActiveFocus(forward ? Qt.TabFocusReason : Qt.BacktabFocusReason)
                }
            }
        }
    }
}
