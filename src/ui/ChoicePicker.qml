import QtQuick
import QtQuick.Controls
import Vorn

// A pop-up list of choices drawn like the rounded buttons beside it: the current
// choice, then a small up-and-down chevron.
ComboBox {
    id: picker

    font.pixelSize: 13
    hoverEnabled: true
    leftPadding: 10
    rightPadding: 8
    topPadding: 6
    bottomPadding: 6
    opacity: enabled ? 1 : Theme.disabledOpacity

    background: Rectangle {
        implicitHeight: 30
        implicitWidth: 90
        radius: 7
        color: Theme.controlFill(picker.pressed || picker.down, picker.hovered)
        border.width: picker.visualFocus ? 2 : 1
        border.color: picker.visualFocus ? Theme.focusBorder : Theme.controlBorder
    }

    contentItem: Label {
        text: picker.displayText
        font: picker.font
        color: Theme.primary
        verticalAlignment: Text.AlignVCenter
        elide: Text.ElideRight
    }

    indicator: Icon {
        x: picker.width - width - picker.rightPadding
        y: Math.round((picker.height - height) / 2)
        name: "chevron.up.chevron.down"
        size: 15
        color: Theme.secondary
    }
}
