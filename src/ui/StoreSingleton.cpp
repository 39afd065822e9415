#include "StoreSingleton.h"

#include <QQmlEngine>

namespace {
constexpr char storeProperty[] = "vornStore";
}

void StoreSingleton::provide(QQmlEngine &engine, EngineStore &store)
{
    engine.setProperty(storeProperty, QVariant::fromValue(&store));
}

EngineStore *StoreSingleton::create(QQmlEngine *engine, QJSEngine *)
{
    auto *store = engine->property(storeProperty).value<EngineStore *>();
    if (!store)
        qFatal("The views were loaded without a store");
    // The store outlives the views; the engine must never delete it.
    QJSEngine::setObjectOwnership(store, QJSEngine::CppOwnership);
    return store;
}
