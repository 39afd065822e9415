// Placeholder until image attachment lands.
#include "engine/EngineStore.h"

void EngineStore::attachImage() {}
