import QtQuick
import Vorn
import QtQuick.Controls

// The window's menus: the application menu and Edit. The Edit items act on the text
// field that last had the keyboard; their shortcuts reach a focused field directly.
// The StandardKey enumeration is unknown to the qmllint of Qt 6.4, hence the marks below.
MenuBar {
    id: bar
    objectName: "mainMenu"

    // A TextField or a TextArea: no type they share has the edit functions.
    property var editor: null

    signal shortcutsRequested()

    Menu {
        title: "Vorn"
        MenuItem {
            objectName: "aboutItem"
            text: "About Vorn"
            onTriggered: Shell.about()
        }
        MenuItem {
            objectName: "shortcutsItem"
            text: "Keyboard shortcuts"
            onTriggered: bar.shortcutsRequested()
        }
        MenuSeparator {}
        Action {
            objectName: "quitItem"
            text: "Quit Vorn"
            shortcut: StandardKey.Quit // qmllint disable unqualified
            onTriggered: Shell.quit()
        }
    }

    Menu {
        title: "Edit"
        Action {
            objectName: "undoItem"
            text: "Undo"
            shortcut: StandardKey.Undo // qmllint disable unqualified
            onTriggered: if (bar.editor) bar.editor.undo()
        }
        MenuSeparator {}
        Action {
            objectName: "cutItem"
            text: "Cut"
            shortcut: StandardKey.Cut // qmllint disable unqualified
            onTriggered: if (bar.editor) bar.editor.cut()
        }
        Action {
            objectName: "copyItem"
            text: "Copy"
            shortcut: StandardKey.Copy // qmllint disable unqualified
            onTriggered: {
                // A selection across a reply's text items is copied whole.
                if (bar.editor && bar.editor.span && bar.editor.span.spansSeveral)
                    bar.editor.span.copy()
                else if (bar.editor)
                    bar.editor.copy()
            }
        }
        Action {
            objectName: "pasteItem"
            text: "Paste"
            shortcut: StandardKey.Paste // qmllint disable unqualified
            onTriggered: if (bar.editor) bar.editor.paste()
        }
        Action {
            objectName: "selectAllItem"
            text: "Select All"
            shortcut: StandardKey.SelectAll // qmllint disable unqualified
            onTriggered: {
                // In a reply, Select All takes all of the reply's text.
                if (bar.editor && bar.editor.span)
                    bar.editor.span.selectAll(bar.editor)
                else if (bar.editor)
                    bar.editor.selectAll()
            }
        }
    }
}
