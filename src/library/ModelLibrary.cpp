#include "ModelLibrary.h"

#include "ContextChoiceListModel.h"
#include "DownloadListModel.h"
#include "HubLink.h"
#include "LocalModelListModel.h"
#include "ModelImport.h"
#include "engine/EngineConnection.h"
#include "engine/FileChooser.h"

#include <QDesktopServices>
#include <QJsonObject>
#include <QSettings>
#include <QUrl>

namespace {

// The settings key of the context choice.
const QString contextKey = QStringLiteral("context");

int storedContextChoice()
{
    bool isNumber = false;
    const int stored = QSettings().value(contextKey).toInt(&isNumber);
    return isNumber && ContextChoiceListModel::rowOf(stored) >= 0 ? stored : ContextChoiceListModel::defaultTokens;
}

} // namespace

// The engine commands below run as plain calls that nothing holds on to: once sent
// they finish on their own, even when the library sheet is closed.

ModelLibrary::ModelLibrary(EngineConnection &engine, QObject *parent)
    : QObject(parent),
      m_engine(engine),
      m_modelList(new LocalModelListModel(this)),
      m_downloadList(new DownloadListModel(this)),
      m_contextChoices(new ContextChoiceListModel(this)),
      m_contextChoice(storedContextChoice())
{
    m_modelList->setContextChoice(m_contextChoice);
    // The lists follow each status before anything else hears of it.
    connect(&engine, &EngineConnection::stateChanged, this, [this] {
        const auto &state = m_engine.state();
        m_modelList->update(state ? state->models : QList<LocalModel>(), m_engine.loadedFile());
        m_downloadList->update(state ? state->downloads : QList<DownloadState>());
        const LocalModel *loaded = loadedModel();
        m_contextChoices->setTrainedContext(loaded ? loaded->contextLength : std::nullopt);
    });
}

const LocalModel *ModelLibrary::listedModel(const QString &name) const
{
    const auto &state = m_engine.state();
    if (!state)
        return nullptr;
    for (const LocalModel &model : state->models) {
        if (model.name == name)
            return &model;
    }
    return nullptr;
}

const LocalModel *ModelLibrary::loadedModel() const
{
    return m_engine.hasLoadedModel() ? listedModel(m_engine.loadedFile()) : nullptr;
}

void ModelLibrary::setContextChoice(int tokens)
{
    if (tokens == m_contextChoice)
        return;
    if (ContextChoiceListModel::rowOf(tokens) < 0 || !m_contextChoices->available(tokens) || !canChangeModel()) {
        emit contextChoiceChanged();
        return;
    }
    m_contextChoice = tokens;
    QSettings().setValue(contextKey, tokens);
    m_modelList->setContextChoice(tokens);
    emit contextChoiceChanged();

    // The loaded model takes the new context at once, unless it already has it.
    if (!m_engine.hasLoadedModel())
        return;
    const LocalModel *loaded = loadedModel();
    const auto context = loaded ? loaded->contextFor(tokens) : std::nullopt;
    if (!context || *context != m_engine.state()->ctx)
        load(m_engine.loadedFile());
}

void ModelLibrary::setLoading(bool loading)
{
    if (m_loading == loading)
        return;
    m_loading = loading;
    emit loadingChanged();
}

bool ModelLibrary::canChangeModel() const
{
    return !m_loading && !(m_replying && m_replying());
}

void ModelLibrary::refreshOrShow(const EngineReply &reply)
{
    if (!reply.ok()) {
        emit errorRaised(reply.failure->message);
        return;
    }
    m_engine.refresh();
}

void ModelLibrary::load(const QString &name)
{
    if (!canChangeModel())
        return;
    setLoading(true);
    // Stays until a poll round after the load replaces it; the status leaves it alone
    // while loading is true.
    m_engine.setActivity(QStringLiteral("Loading ") + name + QChar(0x2026));
    emit errorCleared();

    // A choice the model does not take loads it with its maximum.
    const LocalModel *listed = listedModel(name);
    const qint64 context = listed ? listed->loadContext(m_contextChoice) : m_contextChoice;
    const QJsonObject body{
        {QStringLiteral("name"), name},
        {QStringLiteral("gpu"), true},
        {QStringLiteral("ctx"), context},
    };
    m_engine.client().request(QStringLiteral("api/load"), body, [this](const EngineReply &reply) {
        if (!reply.ok()) {
            emit errorRaised(reply.failure->message);
            setLoading(false);
            return;
        }
        m_engine.refresh([this](bool) { setLoading(false); });
    });
}

void ModelLibrary::unload()
{
    if (!canChangeModel())
        return;
    m_engine.client().request(QStringLiteral("api/unload"), QJsonObject(),
                              [this](const EngineReply &reply) { refreshOrShow(reply); });
}

void ModelLibrary::importModels(FileChooser *chooser)
{
    // Our chooser cannot be confirmed with nothing selected, so an empty answer is
    // always a cancel: nothing changes and no status is fetched. A selection whose
    // files are all skipped still refreshes below.
    const QStringList files = chooser ? chooser->chooseFilesToOpen(FileChooser::Kind::Models, true) : QStringList();
    if (files.isEmpty())
        return;

    if (const auto failure = ModelImport::linkInto(m_engine.modelsFolder(), files)) {
        emit errorRaised(*failure);
        return;
    }
    m_engine.refresh();
}

void ModelLibrary::download(const QString &link)
{
    const auto hubLink = HubLink::parse(link);
    if (!hubLink) {
        emit errorRaised(HubLink::refusedMessage());
        return;
    }
    const QJsonObject body{
        {QStringLiteral("name"), hubLink->name},
        {QStringLiteral("url"), hubLink->url},
    };
    m_engine.client().request(QStringLiteral("api/pull"), body,
                              [this](const EngineReply &reply) { refreshOrShow(reply); });
}

void ModelLibrary::revealModels()
{
    QDesktopServices::openUrl(QUrl::fromLocalFile(m_engine.modelsFolder()));
}
