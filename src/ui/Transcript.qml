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

    // The message whose block shows the top (or the bottom) edge of the view.
    function indexAtViewEdge(bottom) {
        const y = bottom ? messages.contentY + messages.height - 1 : messages.contentY
        for (let step = 0; step < 40; ++step) {
            // Between blocks, look a little further in.
            const index = messages.indexAt(messages.width / 2, bottom ? y - step * 8 : y + step * 8)
            if (index >= 0)
                return index
        }
        return messages.currentIndex
    }

    // The keyboard moves to a message: it becomes the current one, shows, and takes the
    // keyboard with its focus ring.
    function moveToMessage(index) {
        transcript.followingEnd = false
        messages.currentIndex = index
        messages.positionViewAtIndex(index, ListView.Contain)
        if (messages.currentItem)
            messages.currentItem.forceActiveFocus()
    }

    // The keyboard comes into the list from outside: it starts at the newest message,
    // scrolling only when none of it shows.
    function enterMessages() {
        if (messages.count === 0)
            return
        messages.currentIndex = messages.count - 1
        const item = messages.currentItem
        if (!item)
            return
        const top = item.y
        if (top + item.height <= messages.contentY || top >= messages.contentY + messages.height) {
            transcript.followingEnd = false
            messages.positionViewAtIndex(messages.currentIndex, ListView.Contain)
        }
        item.forceActiveFocus()
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

        // For the keyboard and a screen reader the transcript is a list of messages and
        // one stop of the window's Tab order. The keyboard lands on its current message,
        // the newest one each time it comes in from outside; Up, Down, Page Up, Page Down,
        // Home and End move message by message, scrolling the message into view. Tab
        // from a message goes on to its own buttons, then out of the list; Shift+Tab from
        // outside passes no button and lands on the message. The other messages' buttons
        // take no Tab (see MessageBlock), so the stop stays one.
        activeFocusOnTab: true
        // Set while the keyboard is on the list or inside it; the current message's
        // buttons take Tab only then.
        property bool keyboardInside: false
        keyNavigationEnabled: false
        highlightFollowsCurrentItem: false
        Accessible.role: Accessible.List
        Accessible.name: "Messages"
        Keys.onPressed: (event) => {
            if (event.modifiers !== Qt.NoModifier || messages.count === 0)
                return
            let target = -1
            switch (event.key) {
            case Qt.Key_Up:
                target = messages.currentIndex - 1
                break
            case Qt.Key_Down:
                target = messages.currentIndex + 1
                break
            case Qt.Key_PageUp:
                target = Math.min(messages.currentIndex - 1, transcript.indexAtViewEdge(false))
                break
            case Qt.Key_PageDown:
                target = Math.max(messages.currentIndex + 1, transcript.indexAtViewEdge(true))
                break
            case Qt.Key_Home:
                target = 0
                break
            case Qt.Key_End:
                target = messages.count - 1
                break
            default:
                return
            }
            event.accepted = true
            transcript.moveToMessage(Math.max(0, Math.min(messages.count - 1, target)))
        }

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
            keyboardInList: messages.keyboardInside // qmllint disable unqualified
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

    // Whether the keyboard is in the list is known once the focus has landed, so the
    // buttons leave the Tab order only after they lost the keyboard. Something inside a
    // message that the keyboard reaches (a button of a tall reply) scrolls into view when
    // none of it shows; a click lands on what already shows, so it never scrolls.
    Connections {
        target: transcript.Window.window
        function onActiveFocusItemChanged() {
            const item = transcript.Window.activeFocusItem
            let inside = false
            for (let parent = item; parent && !inside; parent = parent.parent)
                inside = parent === messages
            const entering = inside && !messages.keyboardInside
            messages.keyboardInside = inside
            // Tab lands on the list or its current message; a click into a message's text
            // is no entry. Moving the keyboard waits until Qt has finished this move.
            if (entering && (item === messages || item.parent === messages.contentItem)) {
                Qt.callLater(transcript.enterMessages) // qmllint disable type
                return
            }
            if (!inside || item === messages || item.parent === messages.contentItem)
                return
            const top = item.mapToItem(messages.contentItem, 0, 0).y
            if (top + item.height > messages.contentY && top < messages.contentY + messages.height)
                return
            transcript.followingEnd = false
            messages.contentY = Math.max(messages.originY, Math.min(transcript.endY(), top - 24))
        }
    }

    // Over the list, watching the mouse beside the blocks, which keep their own
    // presses: a drag that selects text past the list's top or bottom scrolls it.
    Item {
        anchors.fill: messages
        z: 1

        PointHandler {
            id: selectionDrag
            acceptedButtons: Qt.LeftButton
            acceptedDevices: PointerDevice.Mouse | PointerDevice.TouchPad
        }
    }

    DragAutoScroll {
        view: messages
        active: selectionDrag.active && messages.visible
        scenePosition: selectionDrag.point.scenePosition
        onScrolled: transcript.followingEnd = false
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
