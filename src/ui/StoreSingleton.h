#pragma once

#include "engine/EngineStore.h"

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
