#include "ByteCountText.h"

#include <array>
#include <cmath>

namespace {

struct Unit {
    const char *name;
    int decimals;
};

// KB shows whole numbers, MB one decimal, larger units two.
constexpr std::array<Unit, 6> units{{{"KB", 0}, {"MB", 1}, {"GB", 2}, {"TB", 2}, {"PB", 2}, {"EB", 2}}};

QString withoutTrailingZeros(QString number)
{
    if (number.contains(QLatin1Char('.'))) {
        while (number.endsWith(QLatin1Char('0')))
            number.chop(1);
        if (number.endsWith(QLatin1Char('.')))
            number.chop(1);
    }
    return number;
}

QString positiveByteCountText(quint64 bytes)
{
    if (bytes == 1)
        return QStringLiteral("1 byte");
    if (bytes < 1000)
        return QStringLiteral("%1 bytes").arg(bytes);

    double value = static_cast<double>(bytes);
    std::size_t unit = 0;
    value /= 1000.0;
    for (;;) {
        const double scale = std::pow(10.0, units[unit].decimals);
        const double rounded = std::round(value * scale) / scale;
        // A value that rounds up to 1000 reads better in the next unit: 999,999 bytes is 1 MB.
        if (rounded >= 1000.0 && unit + 1 < units.size()) {
            value /= 1000.0;
            ++unit;
            continue;
        }
        const QString number = QString::number(rounded, 'f', units[unit].decimals);
        return withoutTrailingZeros(number) + QLatin1Char(' ') + QLatin1String(units[unit].name);
    }
}

} // namespace

QString byteCountText(qint64 bytes)
{
    if (bytes == 0)
        return QStringLiteral("Zero KB");
    if (bytes < 0) {
        const quint64 magnitude = bytes == std::numeric_limits<qint64>::min()
            ? static_cast<quint64>(std::numeric_limits<qint64>::max()) + 1
            : static_cast<quint64>(-bytes);
        return QLatin1Char('-') + positiveByteCountText(magnitude);
    }
    return positiveByteCountText(static_cast<quint64>(bytes));
}
