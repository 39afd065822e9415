#include "DialogFileChooser.h"

#include <QDir>
#include <QFileDialog>
#include <QFileInfo>

namespace {

QString filterFor(FileChooser::Kind kind)
{
    switch (kind) {
    case FileChooser::Kind::Models:
        return QStringLiteral("GGUF models (*.gguf)");
    case FileChooser::Kind::Images:
        return QStringLiteral("Images (*.png *.jpg *.jpeg *.tif *.tiff *.heic)");
    }
    return {};
}

} // namespace

QStringList DialogFileChooser::chooseFilesToOpen(Kind kind, bool multiple)
{
    const QString filter = filterFor(kind);
    if (multiple)
        return QFileDialog::getOpenFileNames(nullptr, QString(), QString(), filter);
    const QString file = QFileDialog::getOpenFileName(nullptr, QString(), QString(), filter);
    return file.isEmpty() ? QStringList() : QStringList{file};
}

std::optional<FileChooser::SaveTarget> DialogFileChooser::chooseFileToSave(const QString &proposedName,
                                                                           const QList<TextFormat> &formats)
{
    if (formats.isEmpty())
        return std::nullopt;
    QStringList filters;
    for (const TextFormat format : formats)
        filters.append(QStringLiteral("%1 (*.%2)").arg(formatName(format), extension(format)));
    QFileDialog dialog(nullptr, QString(), QDir::home().filePath(proposedName));
    dialog.setAcceptMode(QFileDialog::AcceptSave);
    dialog.setNameFilters(filters);
    dialog.selectNameFilter(filters.first());
    // Added before the dialog asks about replacing a file, so it asks about the right one.
    dialog.setDefaultSuffix(extension(formats.first()));
    // Another format chosen: the name takes its extension.
    QObject::connect(&dialog, &QFileDialog::filterSelected, &dialog, [&](const QString &filter) {
        const auto chosen = filters.indexOf(filter);
        if (chosen < 0)
            return;
        const QString suffix = extension(formats.at(chosen));
        dialog.setDefaultSuffix(suffix);
        const QStringList typed = dialog.selectedFiles();
        const QString name = typed.isEmpty() || QFileInfo(typed.first()).fileName().isEmpty()
            ? QFileInfo(proposedName).completeBaseName()
            : QFileInfo(typed.first()).completeBaseName();
        dialog.selectFile(name + QLatin1Char('.') + suffix);
    });
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty())
        return std::nullopt;
    const QString file = dialog.selectedFiles().constFirst();
    if (file.isEmpty())
        return std::nullopt;
    const auto chosen = filters.indexOf(dialog.selectedNameFilter());
    return SaveTarget(file, formats.at(chosen < 0 ? 0 : chosen));
}
