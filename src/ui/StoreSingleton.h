#pragma once

#include "chat/ConversationListModel.h"
#include "chat/MessageListModel.h"
#include "engine/EngineStore.h"
#include "library/ContextChoiceListModel.h"
#include "library/DownloadListModel.h"
#include "library/LocalModelListModel.h"

#include <QtQml/qqml.h>

class QJSEngine;
class QQmlEngine;

// The app's store as the views reach it: the singleton "Store" of the Vorn module. Each
// QML engine shows the store it was given before loading anything.
struct StoreSingleton {
    Q_GADGET
    QML_FOREIGN(EngineStore)
    QML_NAMED_ELEMENT(Store)
    QML_SINGLETON

public:
    static void provide(QQmlEngine &engine, EngineStore &store);
    static EngineStore *create(QQmlEngine *engine, QJSEngine *);
};

// The list models the store hands to the views, known to the module by their
// properties and roles but never created in QML.
struct ConversationListModelForeign {
    Q_GADGET
    QML_FOREIGN(ConversationListModel)
    QML_ANONYMOUS
};

struct MessageListModelForeign {
    Q_GADGET
    QML_FOREIGN(MessageListModel)
    QML_ANONYMOUS
};

struct LocalModelListModelForeign {
    Q_GADGET
    QML_FOREIGN(LocalModelListModel)
    QML_ANONYMOUS
};

struct ContextChoiceListModelForeign {
    Q_GADGET
    QML_FOREIGN(ContextChoiceListModel)
    QML_ANONYMOUS
};

struct DownloadListModelForeign {
    Q_GADGET
    QML_FOREIGN(DownloadListModel)
    QML_ANONYMOUS
};
