#include "AppDelegate.h"
#include "AppIconArt.h"
#include "ViewSetup.h"
#include "engine/EngineStore.h"

#ifdef VORN_HAVE_DIALOGS
#include "DialogFileChooser.h"
#endif

#include <QApplication>
#include <QIcon>

int main(int argc, char *argv[])
{
    QApplication application(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Vorn"));
    QCoreApplication::setApplicationName(QStringLiteral("Vorn"));
    QCoreApplication::setApplicationVersion(QStringLiteral(VORN_VERSION));
    QIcon icon;
    for (const int size : {16, 32, 48, 64, 128, 256})
        icon.addPixmap(QPixmap::fromImage(AppIconArt::applicationImage(size)));
    QApplication::setWindowIcon(icon);
    ViewSetup::prepareApplication();

    AppDelegate delegate;
#ifdef VORN_HAVE_DIALOGS
    delegate.store().setFileChooser(std::make_shared<DialogFileChooser>());
#endif
    delegate.launch();
    return application.exec();
}
