#pragma once

#include "engine/EngineConnection.h"
#include "engine/EngineStore.h"

#include <QFileInfo>
#include <QString>

// The vorn-engine the build put next to the app, named by VORN_ENGINE_PATH.
namespace BuiltEngine {

// Makes stores in this process start that engine; false when it is not there.
inline bool use()
{
    const QString engine = qEnvironmentVariable("VORN_ENGINE_PATH");
    if (!QFileInfo(engine).isExecutable())
        return false;
    EngineConnection::setEngineLocationForTesting(engine);
    return true;
}

} // namespace BuiltEngine
