#include "DialogFileChooser.h"

#include <QDir>
#include <QFileDialog>

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

std::optional<QString> DialogFileChooser::chooseFileToSave(const QString &proposedName)
{
    QFileDialog dialog(nullptr, QString(), QDir::home().filePath(proposedName), QStringLiteral("Plain text (*.txt)"));
    dialog.setAcceptMode(QFileDialog::AcceptSave);
    // Added before the dialog asks about replacing a file, so it asks about the right one.
    dialog.setDefaultSuffix(QString::fromUtf16(textExtension));
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty())
        return std::nullopt;
    const QString file = dialog.selectedFiles().constFirst();
    if (file.isEmpty())
        return std::nullopt;
    return file;
}
