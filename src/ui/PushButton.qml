import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vorn

// A rounded text button, optionally with a symbol before the label. A prominent one is
// drawn in ink on the accent colour.
Button {
    id: button

    property string symbol
    property bool prominent: false

    Accessible.name: text
    font.pixelSize: 13
    hoverEnabled: true
    leftPadding: 12
    rightPadding: 12
    topPadding: 6
    bottomPadding: 6

    background: Rectangle {
        implicitHeight: 30
        radius: 7
        opacity: button.enabled ? 1 : Theme.disabledOpacity
        color: button.prominent
               ? (button.pressed ? Theme.accentPressed : Theme.accent)
               : Theme.controlFill(button.pressed, button.hovered)
        border.width: button.visualFocus ? 2 : (button.prominent ? 0 : 1)
        border.color: button.visualFocus ? Theme.focusBorder : Theme.controlBorder
    }

    contentItem: RowLayout {
        spacing: 6
        opacity: button.enabled ? 1 : Theme.disabledOpacity
        Icon {
            visible: button.symbol.length > 0
            name: button.symbol
            size: 16
            color: button.prominent ? Theme.ink : Theme.primary
        }
        Label {
            Layout.fillWidth: true
            horizontalAlignment: Text.AlignHCenter
            text: button.text
            font: button.font
            color: button.prominent ? Theme.ink : Theme.primary
        }
    }
}
