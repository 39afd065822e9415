#pragma once

#include <QString>

// The few texts that name the user's machine or its tools. On macOS they read as
// written for the Mac; elsewhere they use the neutral words.
namespace PlatformWords {

enum class Platform { Mac, Windows, Other };

Platform current();

QString readyActivity(Platform platform = current());       // "Ready on this Mac"
QString modelsStayLocal(Platform platform = current());     // "Your models stay on this Mac."
QString bringModelWelcome(Platform platform = current());   // two lines for the welcome panel
QString revealInFileBrowser(Platform platform = current()); // "Show in Finder"
QString gpuBadge(Platform platform = current());            // "METAL"
QString sendHelp(Platform platform = current());            // "Send · ⌘ Return"
// The library footnote naming where history lives; dataFolder is the real folder.
QString historyFootnote(const QString &dataFolder, Platform platform = current());

} // namespace PlatformWords
