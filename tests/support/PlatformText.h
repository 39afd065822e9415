#pragma once

#include <QString>

// What the app must show where the tests run, written out in full by the test: the
// macOS form, the form used elsewhere and, where it differs, the Windows one. Tests
// compare the views with these texts, never with the function that makes them.
namespace PlatformText {

inline QString expected(const QString &mac, const QString &other, const QString &windows = QString())
{
#if defined(Q_OS_MACOS)
    Q_UNUSED(other);
    Q_UNUSED(windows);
    return mac;
#elif defined(Q_OS_WIN)
    Q_UNUSED(mac);
    return windows.isEmpty() ? other : windows;
#else
    Q_UNUSED(mac);
    Q_UNUSED(windows);
    return other;
#endif
}

inline QString readyActivity()
{
    return expected(QStringLiteral("Ready on this Mac"), QStringLiteral("Ready on this computer"));
}

} // namespace PlatformText
