import QtQuick
import Vorn
import QtQuick.Controls

// The one main window. It is hidden on close and shown again, never rebuilt.
ApplicationWindow {
    id: window
    objectName: "mainWindow"

    // The text field that last had the keyboard, for the Edit menu: opening the menu
    // takes the focus away from it.
    property Item lastEditor: null

    title: "Vorn"
    width: WindowSize.launchWidth
    height: WindowSize.launchHeight
    minimumWidth: WindowSize.minimumWidth
    minimumHeight: WindowSize.minimumHeight
    visible: false
    color: Theme.mainBackground

    palette.window: Theme.sidebarBackground
    palette.windowText: Theme.primary
    palette.base: Theme.elevatedBackground
    palette.alternateBase: Theme.dark ? Qt.rgba(0.14, 0.165, 0.2, 1) : Theme.system.alternateBase
    palette.text: Theme.primary
    palette.button: Theme.dark ? Theme.darkControl : Theme.system.button
    palette.buttonText: Theme.primary
    palette.brightText: "#ffffff"
    palette.highlight: Theme.tint
    palette.highlightedText: "#ffffff"
    palette.placeholderText: Theme.secondary
    palette.toolTipBase: Theme.dark ? Theme.darkControl : "#ffffff"
    palette.toolTipText: Theme.primary
    palette.light: Theme.dark ? Qt.rgba(0.22, 0.25, 0.3, 1) : Theme.system.light
    palette.midlight: Theme.dark ? Qt.rgba(0.19, 0.22, 0.27, 1) : Theme.system.midlight
    palette.mid: Theme.dark ? Qt.rgba(0.14, 0.17, 0.21, 1) : Theme.system.mid
    palette.dark: Theme.dark ? Qt.rgba(0.06, 0.075, 0.1, 1) : Theme.system.dark
    palette.shadow: Theme.dark ? "#000000" : Theme.system.shadow

    onActiveFocusItemChanged: {
        const item = activeFocusItem
        if (item && item.selectAll !== undefined && item.paste !== undefined && item.cut !== undefined)
            lastEditor = item
    }

    menuBar: MainMenu {
        editor: window.lastEditor
        onShortcutsRequested: desktopView.showShortcuts()
    }

    DesktopView {
        id: desktopView
        anchors.fill: parent
    }
}
