#include "engine/EngineStore.h"

#include <QApplication>
#include <QQmlApplicationEngine>
#include <QQmlContext>

int main(int argc, char *argv[])
{
    QApplication application(argc, argv);
    EngineStore store;
    QQmlApplicationEngine engine;
    engine.rootContext()->setContextProperty(QStringLiteral("store"), &store);
    engine.load(QUrl(QStringLiteral("qrc:/ui/DesktopView.qml")));
    if (engine.rootObjects().isEmpty())
        return 1;
    store.start();
    QObject::connect(&application, &QCoreApplication::aboutToQuit, &store, &EngineStore::shutdown);
    return application.exec();
}
