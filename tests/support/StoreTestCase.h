#pragma once

#include "StoreFixture.h"

#include <QObject>
#include <memory>

// A test class whose every test function starts from a fresh StoreFixture: init()
// builds it and cleanup() drops it. A class whose tests start differently builds its
// own in an init() of its own.
class StoreTestCase : public QObject {
    Q_OBJECT

protected:
    StoreFixture &setup() { return *m_setup; }
    EngineStore &store() { return m_setup->store(); }
    FakeEngine &engine() { return m_setup->engine; }
    TestHome &home() { return m_setup->home; }

    void build(const QByteArray &state = FakeEngine::stateJson(),
               StoreFixture::Engine engine = StoreFixture::Engine::StandIn);

protected slots:
    void init() { build(); }
    void cleanup() { m_setup.reset(); }

private:
    std::unique_ptr<StoreFixture> m_setup;
};
