#pragma once

#include <QObject>
#include <QString>
#include <QtQml/qqmlregistration.h>

// The copy buttons' way to the system clipboard.
class Clipboard : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
public:
    using QObject::QObject;

    // Empties the clipboard, then puts the text on it as plain text.
    Q_INVOKABLE void copyText(const QString &text);
};
