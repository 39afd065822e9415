import QtQuick
import Vorn
import QtQuick.Controls
import QtQuick.Layouts

// The model library sheet: the engine's model files and downloads, importing, a
// download link, and the generation settings (temperature, the context models load with,
// the reply limit).
Item {
    id: library
    objectName: "libraryView"

    signal dismissed()

    implicitWidth: 730
    implicitHeight: sections.implicitHeight + 56

    Shortcut {
        sequence: "Ctrl+Esc"
        context: Qt.WindowShortcut
        onActivated: library.dismissed()
    }

    ColumnLayout {
        id: sections
        anchors.fill: parent
        anchors.margins: 28
        spacing: 20

        RowLayout {
            Layout.fillWidth: true
            ColumnLayout {
                objectName: "libraryTitleBlock"
                spacing: 6
                Label {
                    text: "Model library"
                    font.pixelSize: 27
                    font.weight: Font.DemiBold
                    color: Theme.primary
                }
                Label {
                    objectName: "libraryTagline"
                    text: DisplayText.modelsStayLocal
                    font.pixelSize: 13
                    color: Theme.secondary
                }
            }
            Item {
                Layout.fillWidth: true
            }
            PushButton {
                objectName: "doneButton"
                text: "Done"
                onClicked: library.dismissed()
            }
        }

        RowLayout {
            Layout.fillWidth: true
            spacing: 10
            PushButton {
                objectName: "addModelsButton"
                text: "Add GGUF files"
                symbol: "plus"
                onClicked: Store.importModels()
            }
            PushButton {
                objectName: "revealModelsButton"
                text: DisplayText.revealInFileBrowser
                symbol: "folder"
                onClicked: Store.revealModels()
            }
            Item {
                Layout.fillWidth: true
            }
        }

        ScrollView {
            id: modelScroll
            objectName: "modelScroll"
            Layout.fillWidth: true
            // 190 to 310 high; in a window too short for the whole sheet it takes what
            // the other sections leave.
            Layout.fillHeight: true
            Layout.minimumHeight: 190
            Layout.maximumHeight: 310
            Layout.preferredHeight: Math.max(190, Math.min(310, entries.implicitHeight))
            contentWidth: availableWidth
            clip: true
            // The indicator stays in view whenever there is more to scroll to; with
            // nothing to scroll, an empty track would only look like a stray bar.
            readonly property bool overflowing: entries.implicitHeight > availableHeight
            ScrollBar.vertical.policy: overflowing ? ScrollBar.AlwaysOn : ScrollBar.AlwaysOff
            ScrollBar.horizontal.policy: ScrollBar.AlwaysOff

            ColumnLayout {
                id: entries
                // Room for the indicator only when it is there.
                width: modelScroll.availableWidth - (modelScroll.overflowing ? 14 : 0)
                spacing: 8

                Label {
                    objectName: "emptyLibraryNote"
                    visible: Store.modelList.count === 0
                    Layout.fillWidth: true
                    Layout.margins: 16
                    text: "Add a GGUF model you already have, or paste its Hugging Face download link below."
                    wrapMode: Text.Wrap
                    font.pixelSize: 13
                    color: Theme.secondary
                }
                Repeater {
                    model: Store.modelList
                    delegate: ModelRow {
                        Layout.fillWidth: true
                    }
                }
                Repeater {
                    model: Store.downloadList
                    delegate: DownloadRow {
                        Layout.fillWidth: true
                    }
                }
            }
        }

        Rectangle {
            objectName: "libraryDivider"
            Layout.fillWidth: true
            Layout.preferredHeight: 1
            color: Theme.divider
        }

        Label {
            objectName: "downloadHeading"
            text: "Download a model"
            font.pixelSize: 13
            font.weight: Font.DemiBold
            color: Theme.primary
        }

        RowLayout {
            Layout.fillWidth: true
            spacing: 10
            RoundedField {
                id: linkField
                objectName: "downloadLinkField"
                Accessible.name: "Download link"
                Layout.fillWidth: true
                placeholderText: "https://huggingface.co/…/model.gguf"
            }
            PushButton {
                objectName: "downloadButton"
                text: "Download"
                enabled: linkField.text.length > 0 && Store.ready
                onClicked: Store.download(linkField.text)
            }
        }

        // The generation settings and, under them, the default system prompt.
        ColumnLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            spacing: 10

            RowLayout {
                objectName: "settingsRow"
                Layout.fillWidth: true
                enabled: !Store.generating
                spacing: 10

                Label {
                    objectName: "temperatureLabel"
                    text: "Temperature"
                    font.pixelSize: 12
                    color: Theme.primary
                    opacity: enabled ? 1 : Theme.disabledOpacity
                }
                Slider {
                    id: temperatureSlider
                    objectName: "temperatureSlider"
                    Accessible.name: "Temperature"
                    Layout.preferredWidth: 120
                    from: 0
                    to: 1.3
                    stepSize: 0.1
                    snapMode: Slider.SnapAlways
                    opacity: enabled ? 1 : Theme.disabledOpacity
                    value: Store.temperature
                    onMoved: Store.temperature = Math.round(value * 10) / 10
                }
                Label {
                    objectName: "temperatureValue"
                    text: DisplayText.oneDecimal(Store.temperature)
                    font.pixelSize: 12
                    color: Theme.primary
                    opacity: enabled ? 1 : Theme.disabledOpacity
                }
                Item {
                    Layout.fillWidth: true
                }
                RowLayout {
                    Layout.fillWidth: false
                    spacing: 8
                    Label {
                        objectName: "contextLabel"
                        text: "Context"
                        font.pixelSize: 12
                        color: Theme.primary
                        opacity: enabled ? 1 : Theme.disabledOpacity
                    }
                    ChoicePicker {
                        id: contextPicker
                        objectName: "contextPicker"
                        Accessible.name: "Context"
                        Layout.preferredWidth: 136
                        font.pixelSize: 12
                        // A new context reloads the loaded model, so not during a load.
                        enabled: Store.canChangeModel
                        model: Store.contextChoices
                        textRole: "label"
                        valueRole: "tokens"
                        currentIndex: Store.contextChoiceIndex
                        onActivated: (index) => Store.chooseContext(index)
                        delegate: ItemDelegate {
                            required property int index
                            required property string label
                            required property bool available
                            objectName: "contextChoice"
                            width: ListView.view ? ListView.view.width : implicitWidth
                            text: label
                            font.pixelSize: 12
                            enabled: available
                            // The pop-up's list follows the highlighted choice.
                            highlighted: ListView.isCurrentItem
                        }
                    }
                }
                RowLayout {
                    Layout.preferredWidth: 190
                    Layout.fillWidth: false
                    spacing: 8
                    Label {
                        objectName: "replyLimitLabel"
                        text: "Reply limit"
                        font.pixelSize: 12
                        color: Theme.primary
                        opacity: enabled ? 1 : Theme.disabledOpacity
                    }
                    ChoicePicker {
                        id: limitPicker
                        objectName: "replyLimitPicker"
                        Accessible.name: "Reply limit"
                        Layout.fillWidth: true
                        font.pixelSize: 12
                        model: [256, 512, 1024, 2048]
                        displayText: String(currentValue)
                        currentIndex: Math.max(-1, model.indexOf(Store.tokenLimit))
                        onActivated: (index) => Store.tokenLimit = model[index]
                    }
                }
            }

            // The default system prompt, kept in the settings as it is typed. It shows
            // up to three lines and gives way first when the window is short.
            RowLayout {
                objectName: "systemPromptRow"
                Layout.fillWidth: true
                Layout.fillHeight: true
                spacing: 10

                Label {
                    Layout.alignment: Qt.AlignTop
                    Layout.topMargin: 7
                    text: "System prompt"
                    font.pixelSize: 12
                    color: Theme.primary
                }
                RoundedTextArea {
                    id: defaultPrompt
                    Layout.fillWidth: true
                    Layout.fillHeight: true
                    Layout.minimumHeight: 32
                    Layout.preferredHeight: Math.min(defaultPrompt.fittingHeight, 76)
                    Layout.maximumHeight: Layout.preferredHeight
                    fieldName: "defaultSystemPromptField"
                    accessibleName: "System prompt"
                    fontSize: 12
                    placeholderText: "Told to the model first in every conversation without a prompt of its own"
                    text: Store.defaultSystemPrompt
                    onTextChanged: if (text !== Store.defaultSystemPrompt) Store.defaultSystemPrompt = text
                }
            }
        }

        Label {
            objectName: "libraryFootnote"
            Layout.fillWidth: true
            text: DisplayText.historyFootnote(Store.dataFolder)
            wrapMode: Text.Wrap
            font.pixelSize: 11
            color: Theme.secondary
        }
    }
}
