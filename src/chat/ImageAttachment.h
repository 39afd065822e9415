#pragma once

#include <QString>

// An image file read for attaching to the next message: its bytes as a data URL, or
// why it could not be taken.
struct ImageAttachment {
    QString dataURL;
    QString failure;

    bool ok() const { return failure.isEmpty(); }

    // Files over 30 MB are refused before they are read.
    static ImageAttachment read(const QString &path);
};
