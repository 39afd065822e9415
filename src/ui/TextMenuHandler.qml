import QtQuick
import Vorn

// Opens the text menu of the item it is in on a right click. The menu is made on the
// first click only: most texts of a long conversation are never right-clicked.
TapHandler {
    id: handler

    // The selection across a reply the text is part of, if any.
    property ReplySelection span: null
    property TextMenu menu: null
    // Whether the text also gets the press: a field being edited takes the focus, as
    // with any click. Otherwise the press is the handler's alone, and text that is
    // read keeps its focus and its selection.
    property bool passesPressOn: false

    acceptedButtons: Qt.RightButton
    gesturePolicy: handler.passesPressOn ? TapHandler.DragThreshold : TapHandler.WithinBounds
    onTapped: (eventPoint) => {
        if (handler.menu === null)
            handler.menu = menuComponent.createObject(handler.parent, {editor: handler.parent, span: handler.span})
        const point = handler.parent.mapFromItem(null, eventPoint.scenePosition)
        handler.menu.popup(point.x, point.y)
    }

    property Component menuComponent: Component {
        TextMenu {}
    }
}
