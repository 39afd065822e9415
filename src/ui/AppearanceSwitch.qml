import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// Light / Dark, as one segmented control. A stored value that is neither selects neither.
Rectangle {
    id: picker
    objectName: "appearanceSwitch"

    implicitHeight: 30
    radius: 8
    color: Theme.raisedFill
    border.color: Theme.hairline
    border.width: 1

    RowLayout {
        anchors.fill: parent
        anchors.margins: 2
        spacing: 2

        Repeater {
            model: [
                { label: "Light", symbol: "sun.max", tag: "light" },
                { label: "Dark", symbol: "moon", tag: "dark" }
            ]
            delegate: AbstractButton {
                id: segment
                required property var modelData
                readonly property bool chosen: AppearanceSetting.appearance === modelData.tag

                objectName: "appearance" + modelData.label
                Accessible.name: modelData.label
                Accessible.checkable: true
                Accessible.checked: chosen
                Layout.fillWidth: true
                Layout.fillHeight: true
                checkable: false
                onClicked: AppearanceSetting.appearance = modelData.tag

                background: Rectangle {
                    radius: 6
                    color: segment.chosen ? (Theme.dark ? Qt.rgba(1, 1, 1, 0.13) : "#ffffff") : "transparent"
                    border.color: segment.visualFocus ? Theme.focusBorder
                                                      : (segment.chosen && !Theme.dark ? Qt.rgba(0, 0, 0, 0.08) : "transparent")
                    border.width: segment.visualFocus ? 2 : 1
                }
                contentItem: Item {
                    Row {
                        anchors.centerIn: parent
                        spacing: 5
                        Icon {
                            name: segment.modelData.symbol
                            size: 14
                            color: segment.chosen ? Theme.primary : Theme.secondary
                            anchors.verticalCenter: parent.verticalCenter
                        }
                        Label {
                            text: segment.modelData.label
                            font.pixelSize: 12
                            font.weight: segment.chosen ? Font.Medium : Font.Normal
                            color: segment.chosen ? Theme.primary : Theme.secondary
                            anchors.verticalCenter: parent.verticalCenter
                        }
                    }
                }
            }
        }
    }
}
