#include "ViewHarness.h"

#include "chat/ConversationListModel.h"

#include "ViewSetup.h"

#include "model/HistoryFile.h"
#include <QCoreApplication>

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QKeyEvent>
#include <QSettings>
#include <QtTest>

void ViewHarness::prepareProcess()
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    QCoreApplication::setOrganizationName(QStringLiteral("Vorn"));
    QCoreApplication::setApplicationName(QStringLiteral("Vorn"));
    // Settings are located once per process, so they get one folder for the whole run.
    TestHome::isolateSettings();
    ViewSetup::prepareApplication();
}

namespace {
bool listModelChecks = true;
}

void ViewHarness::setListModelChecks(bool on)
{
    listModelChecks = on;
}

void ViewHarness::resetSettings()
{
    QSettings settings;
    settings.clear();
    settings.sync();
}

QByteArray ViewHarness::delta(const QString &content)
{
    return FakeResponse::delta(content);
}

QByteArray ViewHarness::modelJson(const QString &name, qint64 size, bool projector)
{
    const QJsonObject model{{"name", name}, {"size", size}, {"projector", projector}};
    return QJsonDocument(model).toJson(QJsonDocument::Compact);
}

QByteArray ViewHarness::downloadJson(const QString &name, qint64 bytes, qint64 total)
{
    const QJsonObject download{{"name", name}, {"bytes", bytes}, {"total", total}};
    return QJsonDocument(download).toJson(QJsonDocument::Compact);
}

Conversation ViewHarness::conversation(const QString &title, const QStringList &texts)
{
    Conversation conversation;
    conversation.title = title;
    for (int index = 0; index < texts.size(); ++index) {
        ChatMessage message;
        message.role = index % 2 == 0 ? QStringLiteral("user") : QStringLiteral("assistant");
        message.text = texts.at(index);
        conversation.messages.append(message);
    }
    return conversation;
}

QList<Conversation> ViewHarness::threeConversations()
{
    return {conversation("Trip to Lisbon", {"Where should we eat?", "Try the bakery."}),
            conversation("Garden plans", {"Tomatoes need sun", "Plant them in May."}),
            conversation("Taxes", {"Deadline?", "April."})};
}

QStringList ViewHarness::listedTitles() const
{
    auto *model = qobject_cast<QAbstractItemModel *>(object(QStringLiteral("conversationFilter")));
    QStringList titles;
    for (int row = 0; model && row < model->rowCount(); ++row)
        titles.append(model->index(row, 0).data(ConversationListModel::TitleRole).toString());
    return titles;
}

ViewHarness::ViewHarness(const QByteArray &stateJson, const QList<Conversation> &history)
{
    if (!history.isEmpty()) {
        HistoryFile::prepareFolder(m_home.dataFolder());
        if (!HistoryFile::save(m_home.historyFile(), history))
            qFatal("The history could not be written");
    }
    if (!m_fake.listen())
        qFatal("The fake engine could not listen");
    if (!stateJson.isEmpty())
        m_fake.setState(stateJson);
    m_store = std::make_unique<EngineStore>();
    m_store->engine().client().setBaseURL(m_fake.baseURL());
    if (listModelChecks)
        m_checks = std::make_unique<StoreListModelChecks>(*m_store);

    m_engine = std::make_unique<QQmlApplicationEngine>();
    ViewSetup::prepareEngine(*m_engine, *m_store);
    m_engine->load(ViewSetup::mainWindowURL());
    if (m_engine->rootObjects().isEmpty())
        qFatal("The main window did not load");
    setWindow(qobject_cast<QQuickWindow *>(m_engine->rootObjects().first()));
    if (m_checks) {
        auto *filter = qobject_cast<QAbstractItemModel *>(object(QStringLiteral("conversationFilter")));
        if (!filter)
            qFatal("The sidebar's conversation filter was not found");
        m_checks->addProxy(filter);
    }
    window()->show();
    if (!QTest::qWaitForWindowExposed(window()))
        qFatal("The main window was not exposed");
    settle();
}

ViewHarness::~ViewHarness()
{
    m_engine.reset();
    m_checks.reset();
    m_store.reset();
}

bool ViewHarness::startEndlessReply(const QString &prompt)
{
    m_fake.route("POST", "/v1/chat/completions", FakeResponse::silent());
    m_store->setPrompt(prompt);
    m_store->send();
    return waitFor([&] { return m_store->generating(); });
}

bool ViewHarness::refresh()
{
    bool finished = false;
    bool applied = false;
    m_store->refresh([&](bool ok) {
        finished = true;
        applied = ok;
    });
    if (!QTest::qWaitFor([&] { return finished; }, 5000))
        return false;
    settle();
    return applied;
}

void ViewHarness::setEngineState(const QByteArray &stateJson)
{
    m_fake.setState(stateJson);
}
