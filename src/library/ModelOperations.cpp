// Loading, unloading, importing and downloading models, and showing the models folder.
#include "engine/EngineStore.h"
#include "library/HubLink.h"
#include "library/ModelImport.h"

#include <QDesktopServices>
#include <QJsonObject>
#include <QUrl>

// The engine commands below run as plain calls that nothing holds on to: once sent
// they finish on their own, even when the library sheet is closed.

void EngineStore::load(const QString &name)
{
    if (m_generating || m_loading)
        return;
    setLoading(true);
    // Stays until a poll round after the load replaces it; refresh leaves it alone
    // while loading is true.
    setActivity(QStringLiteral("Loading ") + name + QChar(0x2026));
    setError(std::nullopt);

    const QJsonObject body{
        {QStringLiteral("name"), name},
        {QStringLiteral("gpu"), true},
        {QStringLiteral("ctx"), 4096},
    };
    request(QStringLiteral("api/load"), body, [this](const EngineReply &reply) {
        if (!reply.ok()) {
            setError(reply.failure->message);
            setLoading(false);
            return;
        }
        refresh([this](bool) { setLoading(false); });
    });
}

void EngineStore::unload()
{
    if (m_generating || m_loading)
        return;
    request(QStringLiteral("api/unload"), QJsonObject(), [this](const EngineReply &reply) {
        if (!reply.ok()) {
            setError(reply.failure->message);
            return;
        }
        refresh();
    });
}

void EngineStore::importModels()
{
    // Our chooser cannot be confirmed with nothing selected, so an empty answer is
    // always a cancel: nothing changes and no status is fetched. A selection whose
    // files are all skipped still refreshes below.
    const QStringList files = m_fileChooser
        ? m_fileChooser->chooseFilesToOpen(FileChooser::Kind::Models, true)
        : QStringList();
    if (files.isEmpty())
        return;

    if (const auto failure = ModelImport::linkInto(m_directory, files)) {
        setError(*failure);
        return;
    }
    refresh();
}

void EngineStore::download(const QString &link)
{
    const auto hubLink = HubLink::parse(link);
    if (!hubLink) {
        setError(HubLink::refusedMessage());
        return;
    }
    const QJsonObject body{
        {QStringLiteral("name"), hubLink->name},
        {QStringLiteral("url"), hubLink->url},
    };
    request(QStringLiteral("api/pull"), body, [this](const EngineReply &reply) {
        if (!reply.ok()) {
            setError(reply.failure->message);
            return;
        }
        refresh();
    });
}

void EngineStore::revealModels()
{
    QDesktopServices::openUrl(QUrl::fromLocalFile(m_directory));
}
