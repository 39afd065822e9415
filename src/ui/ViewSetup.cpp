#include "ViewSetup.h"

#include "StoreSingleton.h"

#include <QQmlEngine>
#include <QQuickStyle>

// Generated with the module; referring to it keeps the module's type registration in
// the link of every program that shows the views.
extern void qml_register_types_Vorn();

namespace ViewSetup {

void prepareApplication()
{
    // Fusion is the desktop-looking style that follows the palette we set per appearance.
    QQuickStyle::setStyle(QStringLiteral("Fusion"));
}

void prepareEngine(QQmlEngine &engine, EngineStore &store)
{
    static void (*const volatile registration)() = &qml_register_types_Vorn;
    Q_UNUSED(registration);
    engine.addImportPath(QStringLiteral("qrc:/"));
    StoreSingleton::provide(engine, store);
}

QUrl mainWindowURL()
{
    return QUrl(QStringLiteral("qrc:/Vorn/MainWindow.qml"));
}

} // namespace ViewSetup
