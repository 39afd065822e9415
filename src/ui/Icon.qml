import QtQuick
import Vorn

// One symbol from the icon font.
Text {
    property string name
    property real size: 16

    text: Icons.glyph(name)
    font.family: Theme.iconFont
    font.pixelSize: size
    color: Theme.primary
    horizontalAlignment: Text.AlignHCenter
    verticalAlignment: Text.AlignVCenter
}
