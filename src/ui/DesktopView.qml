import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// The window's content: sidebar, main column, the undo bar, the library and shortcuts
// sheets, the window's shortcuts and the error alert.
Item {
    id: view
    objectName: "desktopView"

    function showShortcuts() {
        shortcutsSheet.open()
    }

    RowLayout {
        anchors.fill: parent
        spacing: 0

        Sidebar {
            id: sidebar
            Layout.preferredWidth: 260
            Layout.fillHeight: true
        }

        Rectangle {
            Layout.preferredWidth: 1
            Layout.fillHeight: true
            color: Theme.divider
        }

        Rectangle {
            id: mainColumn
            objectName: "mainColumn"
            Layout.fillWidth: true
            Layout.fillHeight: true
            color: Theme.mainBackground

            ColumnLayout {
                anchors.fill: parent
                spacing: 0

                Header {
                    Layout.fillWidth: true
                    Layout.preferredHeight: 72
                }
                Rectangle {
                    Layout.fillWidth: true
                    Layout.preferredHeight: 1
                    color: Theme.divider
                }
                Transcript {
                    id: transcript
                    Layout.fillWidth: true
                    Layout.fillHeight: true
                }
                Composer {
                    id: composer
                    Layout.fillWidth: true
                }
                Footer {
                    Layout.fillWidth: true
                    Layout.preferredHeight: 40
                }
            }

            // Over the foot of the transcript, just above the composer.
            UndoBar {
                anchors.horizontalCenter: parent.horizontalCenter
                y: transcript.y + transcript.height - height - 12
            }
        }
    }

    WindowShortcuts {
        sidebar: sidebar
        composer: composer
    }

    ShortcutsSheet {
        id: shortcutsSheet
    }

    Popup {
        id: librarySheet
        objectName: "librarySheet"

        parent: Overlay.overlay
        modal: true
        dim: true
        // Only Done or Ctrl+Escape close the sheet; plain Escape and outside clicks do not.
        closePolicy: Popup.NoAutoClose
        // The keyboard moves into the sheet while it is open.
        focus: true
        visible: Store.showLibrary
        onClosed: Store.showLibrary = false
        x: Math.round((parent.width - width) / 2)
        y: Math.max(20, Math.round((parent.height - height) / 2))
        width: 730
        // Never taller than the window; the model list gives way first.
        height: Math.min(implicitHeight, parent.height - 40)
        padding: 0

        Overlay.modal: Rectangle {
            color: Theme.scrim
        }
        background: Rectangle {
            color: Theme.mainBackground
            radius: 14
            border.color: Theme.hairline
            border.width: 1
        }

        // A fresh sheet each time it opens, so its link field starts empty.
        contentItem: Loader {
            active: Store.showLibrary
            sourceComponent: LibraryView {
                onDismissed: Store.showLibrary = false
            }
        }
    }

    ErrorAlert {
        objectName: "errorAlert"
    }
}
