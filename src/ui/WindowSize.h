#pragma once

#include <QObject>
#include <QtQml/qqmlregistration.h>

// The main window's size at first launch and the smallest it may get, for the shell and
// the window alike.
class WindowSize : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    Q_PROPERTY(int launchWidth MEMBER launchWidthValue CONSTANT)
    Q_PROPERTY(int launchHeight MEMBER launchHeightValue CONSTANT)
    Q_PROPERTY(int minimumWidth MEMBER minimumWidthValue CONSTANT)
    Q_PROPERTY(int minimumHeight MEMBER minimumHeightValue CONSTANT)
public:
    using QObject::QObject;

    static constexpr int launchWidth = 1180;
    static constexpr int launchHeight = 790;
    static constexpr int minimumWidth = 920;
    static constexpr int minimumHeight = 660;

private:
    int launchWidthValue = launchWidth;
    int launchHeightValue = launchHeight;
    int minimumWidthValue = minimumWidth;
    int minimumHeightValue = minimumHeight;
};
