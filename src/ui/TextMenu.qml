import QtQuick
import Vorn
import QtQuick.Controls

// A text's right-click menu: Cut, Copy, Paste and Select All, as the Edit menu has
// them. Text that cannot be edited offers Copy and Select All; in a reply, both act on
// a selection across its prose and code blocks.
Menu {
    id: menu
    objectName: "textMenu"

    // The text item it acts on.
    required property var editor
    // The selection across a reply the text is part of, if any.
    property ReplySelection span: null

    readonly property bool editable: !menu.editor.readOnly
    readonly property bool hasSelection: menu.editor.selectionStart !== menu.editor.selectionEnd
                                         || (menu.span !== null && menu.span.spansSeveral)

    MenuItem {
        objectName: "textMenuCut"
        opacity: enabled ? 1 : Theme.disabledOpacity
        text: "Cut"
        enabled: menu.editable && menu.hasSelection
        onTriggered: menu.editor.cut()
    }
    MenuItem {
        objectName: "textMenuCopy"
        opacity: enabled ? 1 : Theme.disabledOpacity
        text: "Copy"
        enabled: menu.hasSelection
        onTriggered: {
            if (menu.span !== null && menu.span.spansSeveral)
                menu.span.copy()
            else
                menu.editor.copy()
        }
    }
    MenuItem {
        objectName: "textMenuPaste"
        opacity: enabled ? 1 : Theme.disabledOpacity
        text: "Paste"
        enabled: menu.editable && menu.editor.canPaste
        onTriggered: menu.editor.paste()
    }
    MenuSeparator {}
    MenuItem {
        objectName: "textMenuSelectAll"
        text: "Select All"
        onTriggered: {
            if (menu.span !== null)
                menu.span.selectAll(menu.editor)
            else
                menu.editor.selectAll()
        }
    }
}
