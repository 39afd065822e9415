#include "Clipboard.h"

#include <QClipboard>
#include <QGuiApplication>

void Clipboard::copyText(const QString &text)
{
    QClipboard *clipboard = QGuiApplication::clipboard();
    clipboard->clear();
    clipboard->setText(text);
}
