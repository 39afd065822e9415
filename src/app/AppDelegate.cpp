#include "AppDelegate.h"

#include "AppIconArt.h"
#include "ShellActions.h"
#include "ViewSetup.h"
#include "WindowSize.h"
#include "engine/EngineStore.h"

#include <QAction>
#include <QApplication>
#include <QGuiApplication>
#include <QIcon>
#include <QMenu>
#include <QMessageBox>
#include <QPalette>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QScreen>
#include <QSettings>
#include <QSystemTrayIcon>

namespace {

QIcon statusIcon()
{
    QIcon icon;
#if defined(Q_OS_MACOS)
    // A mask image: the menu bar tints it.
    const QColor color = Qt::black;
#else
    const QColor color = QGuiApplication::palette().color(QPalette::WindowText);
#endif
    for (const int size : {16, 20, 22, 24, 32, 40, 48, 64})
        icon.addPixmap(QPixmap::fromImage(AppIconArt::trayImage(size, color)));
#if defined(Q_OS_MACOS)
    icon.setIsMask(true);
#endif
    return icon;
}

} // namespace

AppDelegate::AppDelegate(QObject *parent) : AppDelegate(QSystemTrayIcon::isSystemTrayAvailable(), parent) {}

AppDelegate::AppDelegate(bool trayAvailable, QObject *parent)
    : QObject(parent), m_store(new EngineStore(this)), m_trayAvailable(trayAvailable)
{
    connect(qApp, &QCoreApplication::aboutToQuit, this, [this] {
        saveFrame();
        m_store->shutdown();
    });
}

AppDelegate::~AppDelegate()
{
    m_store->setOnStatusChange({});
    delete m_about;
    // The views go before the store they show.
    m_engine.reset();
    delete m_statusMenu;
}

void AppDelegate::launch()
{
    // Without a tray there is no way back to a hidden window, so closing it quits.
    QGuiApplication::setQuitOnLastWindowClosed(!m_trayAvailable);
    createWindow();
    createStatusItem();
    QPointer<AppDelegate> self(this);
    m_store->setOnStatusChange([self] {
        if (self)
            self->updateStatus();
    });
    openWindow();
    m_store->start();
}

void AppDelegate::createWindow()
{
    m_engine = std::make_unique<QQmlApplicationEngine>();
    ViewSetup::prepareEngine(*m_engine, *m_store);
    m_engine->load(ViewSetup::mainWindowURL());
    // The menus in the window call back into the delegate; the module is known once the
    // window has loaded.
    auto *actions = m_engine->singletonInstance<ShellActions *>(qmlTypeId("Vorn", 1, 0, "Shell"));
    if (!actions)
        qFatal("The window's menus have no way to the shell");
    connect(actions, &ShellActions::aboutRequested, this, &AppDelegate::about);
    connect(actions, &ShellActions::quitRequested, this, &AppDelegate::quit);
    const QList<QObject *> roots = m_engine->rootObjects();
    m_window = roots.isEmpty() ? nullptr : qobject_cast<QQuickWindow *>(roots.first());
    if (!m_window)
        qFatal("The main window could not be created");
    m_window->setTitle(QStringLiteral("Vorn"));
    restoreFrame();
    connect(m_window, &QWindow::visibleChanged, this, [this](bool visible) {
        if (!visible)
            saveFrame();
    });
}

void AppDelegate::createStatusItem()
{
    m_status = new QSystemTrayIcon(statusIcon(), this);
    m_status->setToolTip(QStringLiteral("Vorn \u00b7 local inference"));

    m_statusMenu = new QMenu();
    m_statusMenu->addAction(QStringLiteral("Open Vorn"), this, &AppDelegate::openWindow);
    m_statusMenu->addAction(QStringLiteral("New conversation"), this, &AppDelegate::newChat);
    m_statusMenu->addAction(QStringLiteral("Model library\u2026"), this, &AppDelegate::openLibrary);
    m_statusMenu->addSeparator();
    m_statusLine = m_statusMenu->addAction(QStringLiteral("Starting local engine\u2026"));
    m_statusLine->setEnabled(false);
    m_statusMenu->addSeparator();
    m_statusMenu->addAction(QStringLiteral("Quit Vorn"), this, &AppDelegate::quit);
    m_status->setContextMenu(m_statusMenu);

    connect(m_status, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick)
            openWindow();
    });
    if (m_trayAvailable)
        m_status->show();
}

void AppDelegate::updateStatus()
{
    if (m_statusLine)
        m_statusLine->setText(m_store->loadedName());
    if (m_status)
        m_status->setToolTip(QStringLiteral("Vorn \u00b7 ") + m_store->activity());
}

QString AppDelegate::versionText()
{
    const QString version = QCoreApplication::applicationVersion();
    return version.isEmpty() ? QStringLiteral("0.2.2") : version;
}

QString AppDelegate::creditsText()
{
    return QStringLiteral("Private AI that runs on your own computer.\nMade by the Vorn developers.");
}

void AppDelegate::about()
{
    if (!m_about) {
        m_about = new QMessageBox();
        m_about->setAttribute(Qt::WA_DeleteOnClose);
        m_about->setWindowTitle(QStringLiteral("About Vorn"));
        m_about->setIconPixmap(QPixmap::fromImage(AppIconArt::applicationImage(64)));
        m_about->setTextFormat(Qt::PlainText);
        m_about->setText(QStringLiteral("Vorn"));
        m_about->setInformativeText(QStringLiteral("Version ") + versionText() + QStringLiteral("\n\n")
                                    + creditsText());
        m_about->setStandardButtons(QMessageBox::Ok);
    }
    m_about->show();
    m_about->raise();
    m_about->activateWindow();
}

void AppDelegate::quit()
{
    QCoreApplication::quit();
}

void AppDelegate::openWindow()
{
    if (!m_window)
        return;
    m_window->show();
    m_window->raise();
    m_window->requestActivate();
}

void AppDelegate::newChat()
{
    m_store->newChat();
    openWindow();
}

void AppDelegate::openLibrary()
{
    m_store->setShowLibrary(true);
    openWindow();
}

void AppDelegate::restoreFrame()
{
    QSettings settings;
    const QRect frame = settings.value(QStringLiteral("%1/frame").arg(QLatin1String(frameGroup))).toRect();
    if (frame.isValid() && frame.width() >= WindowSize::minimumWidth && frame.height() >= WindowSize::minimumHeight) {
        m_window->setGeometry(frame);
        return;
    }
    m_window->resize(WindowSize::launchWidth, WindowSize::launchHeight);
    if (QScreen *screen = m_window->screen()) {
        const QRect available = screen->availableGeometry();
        m_window->setPosition(available.center() - QPoint(WindowSize::launchWidth / 2, WindowSize::launchHeight / 2));
    }
}

void AppDelegate::saveFrame()
{
    if (!m_window)
        return;
    QSettings settings;
    settings.setValue(QStringLiteral("%1/frame").arg(QLatin1String(frameGroup)), m_window->geometry());
    settings.sync();
}
