#pragma once

#include "FakeEngine.h"
#include "ListModelChecks.h"
#include "ScriptedFileChooser.h"
#include "TestHome.h"
#include "chat/ChatSession.h"
#include "engine/EngineConnection.h"
#include "engine/EngineStore.h"
#include "library/ModelLibrary.h"

#include <QByteArray>
#include <QString>
#include <memory>

// A store in a throw-away home, talking to a stand-in engine that reports the given
// status, with file dialogs answered by the test and its list models checked as they
// change (ListModelChecks).
class StoreFixture {
public:
    // None: the store has no engine address, as before a launch.
    enum class Engine { StandIn, None };

    explicit StoreFixture(const QByteArray &state = FakeEngine::stateJson(), Engine engine = Engine::StandIn);
    ~StoreFixture();

    TestHome home;
    FakeEngine engine;
    std::shared_ptr<ScriptedFileChooser> chooser = std::make_shared<ScriptedFileChooser>();

    EngineStore &store() { return *m_store; }
    // A new store in the same home, as after quitting and starting again: the history
    // is read anew.
    void restart();

    // One status call there and back; true when the status was applied.
    bool refresh();
    // One status call there and back, applied or not: whatever the store sent before
    // it has been received by then, so counts taken afterwards are final.
    bool roundTrip();
    // Waits for the reply in progress to end.
    bool waitUntilIdle(int timeoutMs = 10000);

    // Writes a file below the home folder, creating its folders; returns its path, or
    // an empty text when it could not be written.
    QString writeFile(const QString &relativePath, const QByteArray &bytes);

private:
    void makeStore();

    bool m_connect;
    std::unique_ptr<EngineStore> m_store;
    std::unique_ptr<StoreListModelChecks> m_checks;
};
