#pragma once

#include <QMessageBox>
#include <QObject>
#include <QPointer>
#include <QQuickWindow>
#include <memory>

class EngineStore;
class QAction;
class QMenu;
class QQmlApplicationEngine;
class QSystemTrayIcon;

// The application's shell: it owns the one store, builds the window with its menus and
// the tray status item, keeps the status item in step with the engine, shows the about
// panel and stops the engine when the application quits. The window is built once; a
// close hides it while a system tray can bring it back.
class AppDelegate : public QObject {
    Q_OBJECT
public:
    explicit AppDelegate(QObject *parent = nullptr);
    // trayAvailable: whether closing the window may leave the app running in the tray.
    explicit AppDelegate(bool trayAvailable, QObject *parent = nullptr);
    ~AppDelegate() override;

    static constexpr const char *frameGroup = "VornDesktop";

    EngineStore &store() const { return *m_store; }
    QQuickWindow *window() const { return m_window; }
    QQmlApplicationEngine *engine() const { return m_engine.get(); }
    QSystemTrayIcon *statusItem() const { return m_status; }
    QMenu *statusMenu() const { return m_statusMenu; }
    QAction *statusLine() const { return m_statusLine; }
    QMessageBox *aboutPanel() const { return m_about; }
    bool trayAvailable() const { return m_trayAvailable; }

    // Builds menus, window and status item, shows the window, then starts the engine.
    void launch();

    // The application version, or 0.2.2 when none is set.
    static QString versionText();
    static QString creditsText();

public slots:
    void about();
    void quit();
    void openWindow();
    void newChat();
    void openLibrary();

private:
    void createWindow();
    void createStatusItem();
    void updateStatus();
    void restoreFrame();
    void saveFrame();

    EngineStore *m_store;
    bool m_trayAvailable;
    std::unique_ptr<QQmlApplicationEngine> m_engine;
    QPointer<QQuickWindow> m_window;
    QSystemTrayIcon *m_status = nullptr;
    QMenu *m_statusMenu = nullptr;
    QAction *m_statusLine = nullptr;
    QPointer<QMessageBox> m_about;
};
