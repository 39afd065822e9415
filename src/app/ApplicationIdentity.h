#pragma once

// The names the desktop knows Vorn by: the application and organisation name (the
// settings and data folders, the window's class), the version, and the desktop file
// that the window reports, so the desktop groups it with its launcher.
namespace ApplicationIdentity {

// Call once, right after the application object exists.
void apply();

} // namespace ApplicationIdentity
