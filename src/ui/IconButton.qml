import QtQuick
import Vorn
import QtQuick.Controls

// A borderless symbol button with a help tooltip. A screen reader speaks the help
// text, or accessibleName where there is none. Tab reaches it; a click leaves the
// keyboard where it was.
AbstractButton {
    id: button

    property string symbol
    property real symbolSize: 16
    property color symbolColor: Theme.primary
    property string help
    property string accessibleName: help

    implicitWidth: 30
    implicitHeight: 30
    hoverEnabled: true
    focusPolicy: Qt.TabFocus
    Accessible.name: accessibleName
    opacity: enabled ? 1 : Theme.disabledSymbolOpacity

    ToolTip.visible: hovered && help.length > 0
    ToolTip.text: help
    ToolTip.delay: 600

    background: Rectangle {
        radius: 7
        color: button.pressed ? Theme.raisedFill : (button.hovered && button.enabled ? Theme.quietFill : "transparent")
        border.width: button.visualFocus ? 2 : 0
        border.color: Theme.focusBorder
    }
    contentItem: Icon {
        name: button.symbol
        size: button.symbolSize
        color: button.symbolColor
    }
}
