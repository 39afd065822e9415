import QtQuick
import QtQuick.Controls
import Vorn

// A single-line text field with a rounded border. There is no Redo: Ctrl+Shift+Z is
// swallowed so it does nothing.
TextField {
    id: field

    font.pixelSize: 13
    color: Theme.primary
    placeholderTextColor: Theme.secondary
    selectionColor: Theme.selection
    selectedTextColor: Theme.primary
    leftPadding: 10
    rightPadding: 10
    topPadding: 7
    bottomPadding: 7

    Keys.onPressed: (event) => { if (event.matches(StandardKey.Redo)) event.accepted = true }

    TextMenuHandler {
        passesPressOn: true
    }

    background: Rectangle {
        implicitHeight: 32
        radius: 8
        color: Theme.dark ? Qt.rgba(1, 1, 1, 0.06) : Theme.system.base
        border.width: field.activeFocus ? 2 : 1
        border.color: field.activeFocus ? Theme.focusBorder
                                        : (Theme.dark ? Qt.rgba(1, 1, 1, 0.1) : Qt.rgba(0, 0, 0, 0.13))
    }
}
