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

    // The view's position with its end at the bottom (its top when it is shorter).
    function endY() {
        return messages.originY + Math.max(0, messages.contentHeight - messages.height)
    }

    function scrollToBottom() {
        if (empty)
            return
        // Lay out the grown block first, so the end is where the text now ends.
        messages.forceLayout()
        messages.positionViewAtEnd()
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

    ListView {
        id: messages
        objectName: "messageView"
        anchors.fill: parent
        visible: !transcript.empty
        clip: true
        // Only the blocks near the view are made; the others are made as they scroll in.
        model: Store.messageList
        spacing: 8
        boundsBehavior: Flickable.StopAtBounds
        // Follow at once, so the grown text and the scroll land in the same frame.
        onContentHeightChanged: if (transcript.followingEnd) contentY = transcript.endY()
        onHeightChanged: if (transcript.followingEnd) Qt.callLater(transcript.scrollToBottom) // qmllint disable type
        // Text in the blocks is selected by dragging, so the mouse does not fling the view.
        interactive: false

        // 24 above and below the blocks, then the one-point "bottom" anchor.
        header: Item {
            width: 1
            height: 24
        }
        footer: Item {
            width: 1
            height: 24 + 1
            Item {
                objectName: "bottom"
                y: 24
                width: 1
                height: 1
            }
        }

        // The delegate reads an id of this file, as it may; qmllint of Qt 6.4 cannot tell.
        delegate: MessageBlock {
            x: 32
            width: messages.width - 64 // qmllint disable unqualified
        }

        ScrollBar.vertical: ScrollBar {
            policy: ScrollBar.AsNeeded
            onPressedChanged: if (pressed) transcript.followingEnd = false
        }

        WheelHandler {
            onWheel: (event) => {
                transcript.followingEnd = false
                const step = event.pixelDelta.y !== 0 ? event.pixelDelta.y : event.angleDelta.y / 120 * 60
                messages.contentY = Math.max(messages.originY, Math.min(transcript.endY(), messages.contentY - step))
            }
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
