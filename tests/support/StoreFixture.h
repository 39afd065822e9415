#pragma once

#include "FakeEngine.h"
#include "ListModelChecks.h"
#include "ScriptedFileChooser.h"
#include "TestHome.h"
#include "engine/EngineStore.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <memory>

// A store in a throw-away home, talking to a stand-in engine that reports the given
// status, with file dialogs answered by the test.
struct StoreFixture {
    TestHome home;
    FakeEngine engine;
    EngineStore store;
    StoreListModelChecks checks{store};
    std::shared_ptr<ScriptedFileChooser> chooser = std::make_shared<ScriptedFileChooser>();

    explicit StoreFixture(const QByteArray &state = FakeEngine::stateJson())
    {
        engine.listen();
        engine.setState(state);
        store.connectForTesting(engine.baseURL());
        store.setFileChooser(chooser);
    }

    // Writes a file below the home folder, creating its folders; returns its path.
    QString writeFile(const QString &relativePath, const QByteArray &bytes)
    {
        const QString path = QDir(home.path()).filePath(relativePath);
        QDir().mkpath(QFileInfo(path).path());
        QFile file(path);
        if (file.open(QIODevice::WriteOnly))
            file.write(bytes);
        return path;
    }
};
