// Placeholder until export lands.
#include "engine/EngineStore.h"

void EngineStore::exportChat() {}
QString EngineStore::exportText() const { return {}; }
