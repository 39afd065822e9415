#pragma once

#include <QObject>
#include <QString>
#include <QtQml/qqmlregistration.h>

// The persisted colour choice, "light" or "dark". Only "dark" exactly gives the dark
// look; anything else stored by hand reads as light.
class AppearanceSetting : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    Q_PROPERTY(QString appearance READ appearance WRITE setAppearance NOTIFY appearanceChanged)
    Q_PROPERTY(bool dark READ dark NOTIFY appearanceChanged)
public:
    explicit AppearanceSetting(QObject *parent = nullptr);

    static constexpr const char *key = "appearance";

    QString appearance() const { return m_appearance; }
    void setAppearance(const QString &appearance);
    bool dark() const { return m_appearance == QLatin1String("dark"); }

signals:
    void appearanceChanged();

private:
    QString m_appearance;
};
