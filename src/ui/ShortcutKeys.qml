pragma Singleton
import QtQuick

// The window's keyboard shortcuts, as Qt writes key sequences (Ctrl is Command on the
// Mac), and the list the shortcuts sheet shows.
QtObject {
    readonly property string newConversation: "Ctrl+N"
    readonly property string search: "Ctrl+F"
    readonly property string library: "Ctrl+L"
    readonly property string exportConversation: "Ctrl+E"
    readonly property string copyLastReply: "Ctrl+Shift+C"

    readonly property var entries: [
        { keys: newConversation, action: "New conversation" },
        { keys: search, action: "Search conversations" },
        { keys: library, action: "Model library" },
        { keys: exportConversation, action: "Export conversation" },
        { keys: copyLastReply, action: "Copy the last reply" },
        { keys: "Return", action: "Send" },
        { keys: "Shift+Return", action: "New line" },
        { keys: "Ctrl+Return", action: "Send, or stop the reply" },
        { keys: "Up", action: "Edit your last message, in an empty composer" },
        { keys: "Esc", action: "Stop editing a message" },
        { keys: "Del", action: "Delete the selected conversation, in the list" },
        { keys: "F2", action: "Rename the selected conversation, in the list" },
        { keys: "Shift+F10", action: "Conversation menu, in the list" }
    ]
}
