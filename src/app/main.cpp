#include "AppDelegate.h"
#include "AppIconArt.h"
#include "ApplicationIdentity.h"
#include "QuitSignals.h"
#include "SingleInstance.h"
#include "ViewSetup.h"
#include "engine/EngineStore.h"
#include "model/HistoryFile.h"

#ifdef VORN_HAVE_DIALOGS
#include "DialogFileChooser.h"
#endif

#include <QApplication>
#include <QIcon>
#include <QQuickWindow>
#include <QTimer>
#include <chrono>
#include <cstdio>
#include <memory>

namespace {

// Opt-in report for bench/app/startup.py: with VORN_STARTUP_REPORT set, the app prints
// the monotonic clock at its first frame and every new status line on stderr, as
// "name: value" lines; set to "quit", it quits after the first frame.
void reportStartup(AppDelegate &delegate)
{
    const QByteArray mode = qgetenv("VORN_STARTUP_REPORT");
    if (mode.isEmpty() || !delegate.window())
        return;
    const bool quitAfterFirstFrame = mode == "quit";
    auto firstFrame = std::make_shared<QMetaObject::Connection>();
    // Direct: with a render thread, the clock is read where the frame was swapped.
    *firstFrame = QObject::connect(
        delegate.window(), &QQuickWindow::frameSwapped, delegate.window(),
        [firstFrame, quitAfterFirstFrame] {
            if (!QObject::disconnect(*firstFrame))
                return;
            const auto now = std::chrono::steady_clock::now().time_since_epoch();
            std::fprintf(stderr, "first_frame_clock_ns: %lld\n",
                         static_cast<long long>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count()));
            std::fflush(stderr);
            if (quitAfterFirstFrame)
                QTimer::singleShot(0, qApp, &QCoreApplication::quit);
        },
        Qt::DirectConnection);
    EngineStore *store = &delegate.store();
    QObject::connect(store, &EngineStore::activityChanged, store, [store] {
        std::fprintf(stderr, "activity: %s\n", store->activity().toUtf8().constData());
        std::fflush(stderr);
    });
}

// With VORN_STARTUP_REPORT set, a later start that brought the window forward is
// reported too, with the activation token it handed on.
void reportActivation(const QByteArray &activationToken)
{
    if (qEnvironmentVariableIsEmpty("VORN_STARTUP_REPORT"))
        return;
    std::fprintf(stderr, "window_shown_for_later_start: %s\n",
                 activationToken.isEmpty() ? "yes" : activationToken.constData());
    std::fflush(stderr);
}

} // namespace

int main(int argc, char *argv[])
{
    // The desktop's permission to raise a window, given to this start; read before Qt
    // may use it up.
    const QByteArray activationToken = qgetenv("XDG_ACTIVATION_TOKEN");
    QApplication application(argc, argv);
    ApplicationIdentity::apply();
    // A second start over the same history shows the running window and ends.
    SingleInstance instance(HistoryFile::defaultFolder());
    if (!instance.claim()) {
        if (instance.activateRunning(activationToken))
            return 0;
        std::fprintf(stderr, "Vorn is already running, but its window could not be shown.\n");
        return 1;
    }
    QIcon icon;
    for (const int size : {16, 32, 48, 64, 128, 256})
        icon.addPixmap(QPixmap::fromImage(AppIconArt::applicationImage(size)));
    QApplication::setWindowIcon(icon);
    ViewSetup::prepareApplication();

    AppDelegate delegate;
    QObject::connect(&instance, &SingleInstance::activationRequested, &delegate, [&delegate](const QByteArray &token) {
        // Raising the window on Wayland takes the later start's token; Qt's Wayland
        // support (where its version does) reads it from here when the window asks.
        if (!token.isEmpty())
            qputenv("XDG_ACTIVATION_TOKEN", token);
        if (QQuickWindow *window = delegate.window(); window && window->windowStates().testFlag(Qt::WindowMinimized))
            window->setWindowStates(window->windowStates() & ~Qt::WindowMinimized);
        delegate.openWindow();
        reportActivation(token);
    });
#ifdef VORN_HAVE_DIALOGS
    delegate.store().setFileChooser(std::make_shared<DialogFileChooser>());
#endif
    // A logout, `kill` or a closed terminal quits as "Quit Vorn" does: the engine is
    // stopped, the history saved, and the app exits normally.
    QuitSignals quitSignals;
    QObject::connect(&quitSignals, &QuitSignals::quitRequested, &delegate, &AppDelegate::quit);
    delegate.launch();
    reportStartup(delegate);
    return application.exec();
}
