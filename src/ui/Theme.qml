pragma Singleton
import QtQuick
import Vorn

// The window's colours, chosen by the persisted appearance: dark only for "dark".
QtObject {
    id: theme

    readonly property bool dark: AppearanceSetting.appearance === "dark"

    readonly property SystemPalette system: SystemPalette { colorGroup: SystemPalette.Active }
    readonly property FontLoader iconFontLoader: FontLoader { source: "qrc:/Vorn/fonts/MaterialIcons-Regular.ttf" }
    readonly property string iconFont: iconFontLoader.name

    // The system accent colour, and the near-black used on it and behind the dark window.
    readonly property color accent: system.highlight
    readonly property color ink: Qt.rgba(0.07, 0.09, 0.12, 1)
    // Tints the controls: selections, sliders, progress, focus.
    readonly property color tint: Qt.rgba(0.12, 0.49, 0.45, 1)
    readonly property color selection: Qt.rgba(tint.r, tint.g, tint.b, 0.35)
    readonly property color focusBorder: Qt.rgba(tint.r, tint.g, tint.b, 0.7)
    // The accent colour under a pressed button.
    readonly property color accentPressed: Qt.darker(accent, 1.15)

    readonly property color sidebarBackground: dark ? Qt.rgba(0.09, 0.115, 0.145, 1) : system.window
    readonly property color mainBackground: dark ? ink : system.base
    // Text fields and the alert, a step above the window in the dark look.
    readonly property color elevatedBackground: dark ? Qt.rgba(0.12, 0.145, 0.18, 1) : system.base
    // Buttons and tooltips of the controls style, in the dark look.
    readonly property color darkControl: Qt.rgba(0.17, 0.2, 0.24, 1)
    // Behind a sheet or an alert.
    readonly property color scrim: dark ? Qt.rgba(0, 0, 0, 0.45) : Qt.rgba(0, 0, 0, 0.22)
    readonly property color raisedFill: dark ? Qt.rgba(1, 1, 1, 0.055) : Qt.rgba(0, 0, 0, 0.035)
    readonly property color quietFill: dark ? Qt.rgba(1, 1, 1, 0.04) : Qt.rgba(0, 0, 0, 0.04)
    readonly property color hairline: dark ? Qt.rgba(1, 1, 1, 0.08) : Qt.rgba(0, 0, 0, 0.08)
    readonly property color divider: dark ? Qt.rgba(1, 1, 1, 0.09) : Qt.rgba(0, 0, 0, 0.1)

    readonly property color primary: dark ? Qt.rgba(0.93, 0.94, 0.96, 1) : Qt.rgba(0.11, 0.11, 0.12, 1)
    readonly property color secondary: dark ? Qt.rgba(0.93, 0.94, 0.96, 0.55) : Qt.rgba(0, 0, 0, 0.5)
    readonly property color gray: dark ? Qt.rgba(0.6, 0.62, 0.66, 1) : Qt.rgba(0.56, 0.56, 0.58, 1)
    readonly property color orange: dark ? "#ff9f0a" : "#f08c00"
    readonly property color red: dark ? "#ff453a" : "#d70015"

    // Bordered controls (buttons, pickers): their fill by state, and their border.
    function controlFill(pressed, hovered) {
        if (pressed)
            return dark ? Qt.rgba(1, 1, 1, 0.16) : Qt.rgba(0, 0, 0, 0.09)
        if (hovered)
            return dark ? Qt.rgba(1, 1, 1, 0.12) : Qt.rgba(0, 0, 0, 0.06)
        return dark ? Qt.rgba(1, 1, 1, 0.08) : system.base
    }
    readonly property color controlBorder: dark ? Qt.rgba(1, 1, 1, 0.1) : Qt.rgba(0, 0, 0, 0.14)
    // How far a disabled control or label fades, and a disabled symbol button.
    readonly property real disabledOpacity: 0.45
    readonly property real disabledSymbolOpacity: 0.35

    readonly property string monospaceFamily: "DejaVu Sans Mono"
}
