#include "ConversationExport.h"

#include "engine/FileChooser.h"

#include <QFileInfo>
#include <QSaveFile>
#include <QStringList>

namespace ConversationExport {

namespace {

bool hasSystem(const Content &content)
{
    return !content.system.trimmed().isEmpty();
}

QString speaker(const QString &role)
{
    if (role == QLatin1String("user"))
        return QStringLiteral("You");
    if (role == QLatin1String("assistant"))
        return QStringLiteral("Vorn");
    return role.isEmpty() ? role : role.first(1).toUpper() + role.mid(1);
}

} // namespace

QString plainText(const Content &content)
{
    QStringList blocks;
    if (hasSystem(content))
        blocks.append(QStringLiteral("SYSTEM\n") + content.system);
    for (const ChatMessage &message : content.messages)
        blocks.append(message.role.toUpper() + QLatin1Char('\n') + message.text);
    return blocks.join(QStringLiteral("\n\n"));
}

QString markdown(const Content &content)
{
    QStringList sections;
    if (!content.title.isEmpty())
        sections.append(QStringLiteral("# ") + content.title);
    if (hasSystem(content))
        sections.append(QStringLiteral("## System prompt\n\n") + content.system);
    for (const ChatMessage &message : content.messages) {
        QString section = QStringLiteral("## ") + speaker(message.role);
        if (message.image)
            section += QStringLiteral("\n\n*An image was attached here; it is not part of this export.*");
        if (!message.text.isEmpty())
            section += QStringLiteral("\n\n") + message.text;
        sections.append(section);
    }
    return sections.isEmpty() ? QString() : sections.join(QStringLiteral("\n\n")) + QLatin1Char('\n');
}

std::optional<QString> save(FileChooser &chooser, const Content &content)
{
    using Format = FileChooser::TextFormat;
    const auto target = chooser.chooseFileToSave(QStringLiteral("Vorn conversation.txt"),
                                                 {Format::Plain, Format::Markdown});
    if (!target || target->path.isEmpty())
        return std::nullopt;
    // A name typed without an extension gets the one of its format.
    QString path = target->path;
    if (QFileInfo(path).suffix().isEmpty())
        path += QLatin1Char('.') + FileChooser::extension(target->format);

    // Written beside the target and moved over it at the end, so a failure leaves
    // no partial file and an existing file is replaced whole.
    QSaveFile file(path);
    const QByteArray bytes = (target->format == Format::Markdown ? markdown(content) : plainText(content)).toUtf8();
    const bool written = file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.commit();
    // An unfinished file is discarded when it goes out of scope.
    if (written)
        return std::nullopt;
    return QStringLiteral("The conversation could not be saved to %1: %2.")
        .arg(QChar(0x201C) + QFileInfo(path).fileName() + QChar(0x201D), file.errorString());
}

} // namespace ConversationExport
