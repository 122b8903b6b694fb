// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// "Check for Updates…" without linking any update machinery: at construction the optional update plugin is looked
// for in the application's private library directory, loaded, and asked for its updater controller (started at
// once, no delegates). Anything missing leaves the updater unavailable, silently and for the whole run.
//
// Code loaded into Lumora runs with its access to the displays and the keyboard, so the plugin is loaded only from
// an installed location nobody but root can change: the plugin file and every directory above it owned by root
// and writable by nobody else (a sticky directory such as /tmp excepted). A copy of Lumora in a directory of the
// user's own loads no plugin.

#include <string>

#include "Lumora/Updater/LumoraUpdatePlugin.h"

namespace Lumora {

class Updater {
public:
    // Looks in the private library directory of the running executable, when that is a trusted location.
    Updater();
    // Looks in `libraryDirectory` instead, trusting it (tests, the build tree); an empty directory means none.
    explicit Updater(const std::string& libraryDirectory);

    Updater(const Updater&) = delete;
    Updater& operator=(const Updater&) = delete;

    bool isAvailable() const { return controller_ != nullptr; }
    // Asks the plugin for a user-initiated check; nothing when unavailable.
    void checkForUpdates();

    // The application's private library directory (<bindir>/../<libdir>/lumora), or empty when the executable's
    // own path is unknown.
    static std::string privateLibraryDirectory();

    // Whether the file at `path` (a plugin) may be loaded: it and every directory above it are owned by root and
    // not writable by group or others, except directories with the sticky bit. Symbolic links are followed.
    static bool isTrustedLocation(const std::string& path);

private:
    LumoraUpdaterController* controller_ = nullptr;
    LumoraUpdaterControllerCheckForUpdatesFn checkForUpdates_ = nullptr;
};

}  // namespace Lumora
