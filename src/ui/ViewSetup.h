#pragma once

#include <QUrl>

class QQmlEngine;

// What every QML engine that shows Vorn's views needs: the controls style, the import
// path of the embedded views, and where the main window's file lives.
namespace ViewSetup {

// Call once, before the first QML engine is created.
void prepareApplication();
void prepareEngine(QQmlEngine &engine);
QUrl mainWindowURL();

} // namespace ViewSetup
