#include "DisplayText.h"

#include "model/PlatformWords.h"

#include <QKeySequence>
#include <QVariantMap>

QString DisplayText::modelsStayLocal() const
{
    return PlatformWords::modelsStayLocal();
}
QString DisplayText::bringModelWelcome() const
{
    return PlatformWords::bringModelWelcome();
}
QString DisplayText::revealInFileBrowser() const
{
    return PlatformWords::revealInFileBrowser();
}
QString DisplayText::gpuBadge() const
{
    return PlatformWords::gpuBadge();
}
QString DisplayText::sendHelp() const
{
    return PlatformWords::sendHelp();
}
bool DisplayText::mac() const
{
    return PlatformWords::current() == PlatformWords::Platform::Mac;
}

QString DisplayText::historyFootnote(const QString &dataFolder) const
{
    return PlatformWords::historyFootnote(dataFolder);
}

QString DisplayText::oneDecimal(double value)
{
    return QString::asprintf("%.1f", value);
}

QString DisplayText::throughput(double tokensPerSecond)
{
    return QStringLiteral("Last reply \u00b7 ") + oneDecimal(tokensPerSecond) + QStringLiteral(" tok/s");
}

QString DisplayText::tokenCount(double tokens)
{
    return QStringLiteral(" ") + QString::number(static_cast<qint64>(tokens)) + QStringLiteral(" tokens");
}

QString DisplayText::backendBadge(const QString &backend) const
{
    if (backend == QLatin1String("gpu"))
        return gpuBadge();
    return QStringLiteral("CPU");
}

QString DisplayText::shortcutText(const QString &sequence) const
{
    // The key that deletes backwards is the one Mac keyboards label delete.
    const QString keys = mac() && sequence == QLatin1String("Del") ? QStringLiteral("Backspace") : sequence;
    return QKeySequence::fromString(keys, QKeySequence::PortableText).toString(QKeySequence::NativeText);
}
