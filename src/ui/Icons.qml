pragma Singleton
import QtQuick

// The symbol names the views use, mapped to glyphs of the embedded Material icon font.
QtObject {
    readonly property var glyphs: ({
        "plus": "\ue145",                 // add
        "folder": "\ue2c7",               // folder
        "photo.stack": "\ue413",          // photo_library
        "cube": "\ue574",                 // category
        "square.and.pencil": "\ue745",    // edit_note
        "text.bubble": "\ue0cb",          // chat_bubble_outline
        "square.stack.3d.up": "\ue53b",   // layers
        "sun.max": "\ue518",              // light_mode
        "moon": "\ue51c",                 // dark_mode
        "square.and.arrow.up": "\ue6b8",  // ios_share
        "slider.horizontal.3": "\ue429",  // tune
        "doc.on.doc": "\ue14d",           // content_copy
        "waveform.path": "\ue1b8",        // graphic_eq
        "chevron.right": "\ue5cc",        // chevron_right
        "chevron.down": "\ue5cf",         // expand_more
        "photo": "\ue410",                // photo
        "xmark.circle.fill": "\ue5c9",    // cancel
        "arrow.up": "\ue5d8",             // arrow_upward
        "stop.fill": "\ue047",            // stop
        "lock.shield": "\ue32a",          // security
        "chevron.up.chevron.down": "\ue5d7", // unfold_more
        "pin.fill": "\uf10d",             // push_pin
        "pencil": "\ue3c9",               // edit
        "arrow.clockwise": "\ue5d5",      // refresh
        "list.bullet.clipboard": "\ue85d", // assignment
        "xmark": "\ue5cd",                // close
        "keyboard": "\ue312"              // keyboard
    })

    function glyph(name) {
        return glyphs[name] !== undefined ? glyphs[name] : ""
    }
}
