#include "HubLink.h"

#include <QUrl>

namespace {

// The host exactly as typed: QUrl reports scheme and host lower-cased, but the link
// must name them in lower case itself to be accepted.
QString typedHost(const QString &text, const QString &scheme)
{
    QString authority = text.mid(scheme.size() + 3);
    for (qsizetype index = 0; index < authority.size(); ++index) {
        const QChar character = authority.at(index);
        if (character == QLatin1Char('/') || character == QLatin1Char('?') || character == QLatin1Char('#')) {
            authority.truncate(index);
            break;
        }
    }
    if (const qsizetype at = authority.lastIndexOf(QLatin1Char('@')); at >= 0)
        authority.remove(0, at + 1);
    if (const qsizetype colon = authority.lastIndexOf(QLatin1Char(':')); colon >= 0)
        authority.truncate(colon);
    return authority;
}

// The last component of a path, ignoring trailing slashes: "/a/b.gguf/" gives "b.gguf".
QString lastPathComponent(QString path)
{
    while (path.size() > 1 && path.endsWith(QLatin1Char('/')))
        path.chop(1);
    const qsizetype slash = path.lastIndexOf(QLatin1Char('/'));
    return slash < 0 || path.size() == 1 ? path : path.mid(slash + 1);
}

} // namespace

std::optional<HubLink> HubLink::parse(const QString &text)
{
    const QUrl url(text, QUrl::StrictMode);
    if (!url.isValid())
        return std::nullopt;

    const QString scheme = QStringLiteral("https");
    if (url.scheme() != scheme || !text.startsWith(scheme + QStringLiteral("://")))
        return std::nullopt;
    if (url.host() != hubHost() || typedHost(text, scheme) != hubHost())
        return std::nullopt;

    const QString name = lastPathComponent(url.path(QUrl::FullyDecoded));
    if (!name.toLower().endsWith(QStringLiteral(".gguf")))
        return std::nullopt;

    return HubLink{name, text};
}
