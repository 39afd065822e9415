#include "StoreFixture.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QTest>
#include <optional>

StoreFixture::StoreFixture(const QByteArray &state, Engine engine) : m_connect(engine == Engine::StandIn)
{
    // Settings are located once per process, so they get one folder for the whole run,
    // emptied for each fixture as on a fresh install; a restart keeps what was set.
    TestHome::isolateSettings();
    QSettings().clear();
    if (m_connect) {
        if (!this->engine.listen())
            qFatal("The stand-in engine could not listen");
        this->engine.setState(state);
    }
    makeStore();
}

StoreFixture::~StoreFixture()
{
    m_checks.reset();
    m_store.reset();
}

void StoreFixture::makeStore()
{
    m_checks.reset();
    m_store.reset();
    m_store = std::make_unique<EngineStore>();
    if (m_connect)
        m_store->engine().client().setBaseURL(engine.baseURL());
    m_store->setFileChooser(chooser);
    m_checks = std::make_unique<StoreListModelChecks>(*m_store);
}

void StoreFixture::restart()
{
    makeStore();
}

bool StoreFixture::refresh()
{
    std::optional<bool> applied;
    m_store->refresh([&applied](bool ok) { applied = ok; });
    return QTest::qWaitFor([&applied] { return applied.has_value(); }, 5000) && *applied;
}

bool StoreFixture::roundTrip()
{
    bool answered = false;
    m_store->refresh([&answered](bool) { answered = true; });
    return QTest::qWaitFor([&answered] { return answered; }, 5000);
}

bool StoreFixture::waitUntilIdle(int timeoutMs)
{
    return QTest::qWaitFor([this] { return !m_store->generating(); }, timeoutMs);
}

QString StoreFixture::writeFile(const QString &relativePath, const QByteArray &bytes)
{
    const QString path = QDir(home.path()).filePath(relativePath);
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        return {};
    return path;
}
