import QtQuick
import Vorn

// The window-wide keys of ShortcutKeys. An open sheet keeps them to itself.
Item {
    id: shortcuts

    required property Sidebar sidebar
    required property Composer composer

    Shortcut {
        objectName: "newConversationShortcut"
        sequence: ShortcutKeys.newConversation
        enabled: !Store.generating
        onActivated: {
            Store.newChat()
            shortcuts.composer.focusPrompt()
        }
    }
    Shortcut {
        objectName: "searchShortcut"
        sequence: ShortcutKeys.search
        onActivated: shortcuts.sidebar.focusSearch()
    }
    Shortcut {
        objectName: "libraryShortcut"
        sequence: ShortcutKeys.library
        onActivated: Store.showLibrary = true
    }
    Shortcut {
        objectName: "exportShortcut"
        sequence: ShortcutKeys.exportConversation
        enabled: Store.messageList.count > 0
        onActivated: Store.exportChat()
    }
    Shortcut {
        objectName: "copyLastReplyShortcut"
        sequence: ShortcutKeys.copyLastReply
        onActivated: {
            const reply = Store.lastReplyText()
            if (reply.length > 0)
                Clipboard.copyText(reply)
        }
    }
}
