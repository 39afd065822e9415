#include "AppearanceSetting.h"

#include <QSettings>

AppearanceSetting::AppearanceSetting(QObject *parent) : QObject(parent)
{
    m_appearance = QSettings().value(QLatin1String(key), QStringLiteral("light")).toString();
}

void AppearanceSetting::setAppearance(const QString &appearance)
{
    if (m_appearance == appearance)
        return;
    m_appearance = appearance;
    QSettings settings;
    settings.setValue(QLatin1String(key), appearance);
    settings.sync();
    emit appearanceChanged();
}
