#include "StoreTestCase.h"

void StoreTestCase::build(const QByteArray &state, StoreFixture::Engine engine)
{
    // The old fixture goes first: a home folder is set for one fixture at a time.
    m_setup.reset();
    m_setup = std::make_unique<StoreFixture>(state, engine);
}
