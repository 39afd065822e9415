#pragma once

#include <QUrl>

class EngineStore;
class QQmlEngine;

// What every QML engine that shows Vorn's views needs: the controls style, the import
// path of the embedded views, the store they show, and where the main window's file
// lives.
namespace ViewSetup {

// Call once, before the first QML engine is created.
void prepareApplication();
void prepareEngine(QQmlEngine &engine, EngineStore &store);
QUrl mainWindowURL();

} // namespace ViewSetup
