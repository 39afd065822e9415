import QtQuick
import QtQuick.Controls

ApplicationWindow {
    width: 1180
    height: 790
    visible: true
    title: "Vorn"
    Label {
        anchors.centerIn: parent
        text: store.activity
    }
}
