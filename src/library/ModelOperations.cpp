// Placeholder until model operations land.
#include "engine/EngineStore.h"

void EngineStore::load(const QString &) {}
void EngineStore::unload() {}
void EngineStore::importModels() {}
void EngineStore::download(const QString &) {}
void EngineStore::revealModels() {}
