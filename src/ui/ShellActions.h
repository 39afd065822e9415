#pragma once

#include <QObject>
#include <QtQml/qqmlregistration.h>

// What the window's menus ask of the application shell, as the singleton "Shell": the
// shell listens to each engine's instance. Without a shell (the view tests), nothing
// happens.
class ShellActions : public QObject {
    Q_OBJECT
    QML_NAMED_ELEMENT(Shell)
    QML_SINGLETON
public:
    using QObject::QObject;

    Q_INVOKABLE void about() { emit aboutRequested(); }
    Q_INVOKABLE void quit() { emit quitRequested(); }

signals:
    void aboutRequested();
    void quitRequested();
};
