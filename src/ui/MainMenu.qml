import QtQuick
import Vorn
import QtQuick.Controls

// The window's menus: the application menu and Edit. The Edit items act on the text
// field that last had the keyboard; their shortcuts reach a focused field directly.
MenuBar {
    id: bar
    objectName: "mainMenu"

    property Item editor: null

    Menu {
        title: "Vorn"
        MenuItem {
            objectName: "aboutItem"
            text: "About Vorn"
            onTriggered: Shell.about()
        }
        MenuSeparator {}
        Action {
            objectName: "quitItem"
            text: "Quit Vorn"
            shortcut: StandardKey.Quit
            onTriggered: Shell.quit()
        }
    }

    Menu {
        title: "Edit"
        Action {
            objectName: "undoItem"
            text: "Undo"
            shortcut: StandardKey.Undo
            onTriggered: if (bar.editor) bar.editor.undo()
        }
        MenuSeparator {}
        Action {
            objectName: "cutItem"
            text: "Cut"
            shortcut: StandardKey.Cut
            onTriggered: if (bar.editor) bar.editor.cut()
        }
        Action {
            objectName: "copyItem"
            text: "Copy"
            shortcut: StandardKey.Copy
            onTriggered: if (bar.editor) bar.editor.copy()
        }
        Action {
            objectName: "pasteItem"
            text: "Paste"
            shortcut: StandardKey.Paste
            onTriggered: if (bar.editor) bar.editor.paste()
        }
        Action {
            objectName: "selectAllItem"
            text: "Select All"
            shortcut: StandardKey.SelectAll
            onTriggered: if (bar.editor) bar.editor.selectAll()
        }
    }
}
