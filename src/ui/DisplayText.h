#pragma once

#include <QObject>
#include <QString>
#include <QtQml/qqmlregistration.h>

// Texts the views show that depend on the platform or on number formatting; numbers
// are formatted here, printf style, so the views show exactly one decimal.
class DisplayText : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    Q_PROPERTY(QString modelsStayLocal READ modelsStayLocal CONSTANT)
    Q_PROPERTY(QString bringModelWelcome READ bringModelWelcome CONSTANT)
    Q_PROPERTY(QString revealInFileBrowser READ revealInFileBrowser CONSTANT)
    Q_PROPERTY(QString gpuBadge READ gpuBadge CONSTANT)
    Q_PROPERTY(QString sendHelp READ sendHelp CONSTANT)
    Q_PROPERTY(bool mac READ mac CONSTANT)
public:
    using QObject::QObject;

    QString modelsStayLocal() const;
    QString bringModelWelcome() const;
    QString revealInFileBrowser() const;
    QString gpuBadge() const;
    QString sendHelp() const;
    bool mac() const;

    Q_INVOKABLE QString historyFootnote(const QString &dataFolder) const;
    Q_INVOKABLE static QString oneDecimal(double value);
    // "Last reply · 12.3 tok/s"
    Q_INVOKABLE static QString throughput(double tokensPerSecond);
    // " 128 tokens"
    Q_INVOKABLE static QString tokenCount(double tokens);
    // "METAL"/"GPU" for the engine backend "gpu" exactly, "CPU" for anything else.
    Q_INVOKABLE QString backendBadge(const QString &backend) const;
    // A key sequence written the Qt way ("Ctrl+N") as this platform writes it ("⌘N" on
    // the Mac); "Del" is the Mac's delete key there.
    Q_INVOKABLE QString shortcutText(const QString &sequence) const;
};
