#pragma once

#include <QString>

// File-style byte counts in decimal units, as desktop file browsers show them:
// "Zero KB", "1 byte", "999 bytes", "1 KB", "1.2 MB", "4.37 GB".
QString byteCountText(qint64 bytes);
