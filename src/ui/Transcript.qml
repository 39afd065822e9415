import QtQuick
import Vorn
import QtQuick.Controls

// The selected conversation, or the welcome panel when it has no messages. Every change
// of the last message's text scrolls to the end; the first appearance does not.
Item {
    id: transcript
    objectName: "transcript"

    readonly property bool empty: Store.messageList.count === 0
    // Set by a text change; while set, the end stays in view as the blocks finish their
    // layout. Scrolling by hand clears it until the next change.
    property bool followingEnd: false

    function scrollToBottom() {
        if (empty)
            return
        // Lay out the grown block first, so the end is where the text now ends.
        blocks.forceLayout()
        messages.contentY = Math.max(0, messages.contentHeight - messages.height)
    }

    Flickable {
        id: welcomeScroll
        anchors.fill: parent
        visible: transcript.empty
        contentHeight: welcome.implicitHeight + 90 + 24
        boundsBehavior: Flickable.StopAtBounds
        clip: true

        WelcomePanel {
            id: welcome
            y: 90
            width: welcomeScroll.width
        }
    }

    Flickable {
        id: messages
        objectName: "messageView"
        anchors.fill: parent
        visible: !transcript.empty
        clip: true
        contentWidth: width
        // 24 above and below the blocks, then the one-point "bottom" anchor.
        contentHeight: blocks.height + 48 + 1
        boundsBehavior: Flickable.StopAtBounds
        // Follow at once, so the grown text and the scroll land in the same frame.
        onContentHeightChanged: if (transcript.followingEnd) contentY = Math.max(0, contentHeight - height)
        onHeightChanged: if (transcript.followingEnd) Qt.callLater(transcript.scrollToBottom) // qmllint disable type
        // Text in the blocks is selected by dragging, so the mouse does not fling the view.
        interactive: false

        Column {
            id: blocks
            x: 32
            y: 24
            width: messages.width - 64
            spacing: 8
            Repeater {
                model: Store.messageList
                // The delegate reads an id of this file, as it may; qmllint of Qt 6.4
                // cannot tell, nor that Qt.callLater below is a function.
                delegate: MessageBlock {
                    width: blocks.width // qmllint disable unqualified
                }
            }
        }

        Item {
            objectName: "bottom"
            y: blocks.y + blocks.height + 24
            width: 1
            height: 1
        }

        ScrollBar.vertical: ScrollBar {
            policy: ScrollBar.AsNeeded
            onPressedChanged: if (pressed) transcript.followingEnd = false
        }

        WheelHandler {
            onWheel: (event) => {
                transcript.followingEnd = false
                const step = event.pixelDelta.y !== 0 ? event.pixelDelta.y : event.angleDelta.y / 120 * 60
                const bottom = Math.max(0, messages.contentHeight - messages.height)
                messages.contentY = Math.max(0, Math.min(bottom, messages.contentY - step))
            }
        }
    }

    // A message the keyboard moves to scrolls into view when none of it shows; a click
    // lands on what already shows, so it never scrolls.
    Connections {
        target: transcript.Window.window
        function onActiveFocusItemChanged() {
            const item = transcript.Window.activeFocusItem
            if (!item || transcript.empty)
                return
            let inside = false
            for (let parent = item.parent; parent && !inside; parent = parent.parent)
                inside = parent === blocks
            if (!inside)
                return
            const top = item.mapToItem(messages.contentItem, 0, 0).y
            if (top + item.height > messages.contentY && top < messages.contentY + messages.height)
                return
            transcript.followingEnd = false
            messages.contentY = Math.max(0, Math.min(messages.contentHeight - messages.height, top - 24))
        }
    }

    Connections {
        target: Store.messageList
        // Many text changes in one turn of the event loop scroll once.
        function onLastTextChanged() {
            transcript.followingEnd = true
            Qt.callLater(transcript.scrollToBottom) // qmllint disable type
        }
    }
}
