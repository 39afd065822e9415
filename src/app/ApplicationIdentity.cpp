#include "ApplicationIdentity.h"

#include <QGuiApplication>

namespace ApplicationIdentity {

void apply()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Vorn"));
    QCoreApplication::setApplicationName(QStringLiteral("Vorn"));
    QCoreApplication::setApplicationVersion(QStringLiteral(VORN_VERSION));
    // The launcher's file name without ".desktop"; on Wayland it is the window's app id.
    QGuiApplication::setDesktopFileName(QStringLiteral(VORN_APP_ID));
}

} // namespace ApplicationIdentity
