#pragma once

#include "FakeEngine.h"
#include "ListModelChecks.h"
#include "TestHome.h"
#include "WindowDriver.h"
#include "chat/ChatSession.h"
#include "engine/EngineConnection.h"
#include "engine/EngineStore.h"
#include "library/ModelLibrary.h"
#include "model/Conversation.h"

#include <QImage>
#include <QQmlApplicationEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <functional>
#include <memory>

// The main window's real QML, offscreen, showing a store that talks to a fake engine.
// Each harness has its own home folder, so the store starts from an empty history.
class ViewHarness : public WindowDriver {
public:
    // Before the QApplication: software rendering, offscreen, a settings file of our own.
    static void prepareProcess();

    // stateJson: what the fake engine reports; empty for an engine that has not answered.
    explicit ViewHarness(const QByteArray &stateJson = FakeEngine::stateJson(),
                         const QList<Conversation> &history = {});
    ~ViewHarness();

    // Forgets the appearance and window frame, as on a fresh install.
    static void resetSettings();
    // Every harness checks the store's list models and the sidebar's filter as they
    // change (ListModelChecks); a benchmark, which measures the app alone, turns that off.
    static void setListModelChecks(bool on);

    // Pieces of what the fake engine says.
    static QByteArray delta(const QString &content);
    static QByteArray modelJson(const QString &name, qint64 size, bool projector = false);
    static QByteArray downloadJson(const QString &name, qint64 bytes, qint64 total);
    static Conversation conversation(const QString &title, const QStringList &texts);
    // Three conversations of a question and its answer each: "Trip to Lisbon", "Garden
    // plans" and "Taxes".
    static QList<Conversation> threeConversations();

    // The titles the sidebar lists, in its order.
    QStringList listedTitles() const;

    TestHome &home() { return m_home; }
    FakeEngine &fake() { return m_fake; }
    EngineStore &store() { return *m_store; }

    // One status call to the fake engine; true once it was applied.
    bool refresh();
    // Sends the prompt to a reply that never comes; true once generating.
    bool startEndlessReply(const QString &prompt = QStringLiteral("Hello"));
    void setEngineState(const QByteArray &stateJson);

private:
    TestHome m_home;
    FakeEngine m_fake;
    std::unique_ptr<EngineStore> m_store;
    std::unique_ptr<StoreListModelChecks> m_checks;
    std::unique_ptr<QQmlApplicationEngine> m_engine;
};
