#pragma once
// "Check for Updates…" without linking any update machinery: at construction the optional update plugin is looked
// for in the application's private library directory, loaded, and asked for its updater controller (started at
// once, no delegates). Anything missing leaves the updater unavailable, silently and for the whole run.

#include <string>

#include "Lumora/Updater/LumoraUpdatePlugin.h"

namespace Lumora {

class Updater {
public:
    // Looks in the private library directory of the running executable.
    Updater();
    // Looks in `libraryDirectory` instead; an empty directory means there is none.
    explicit Updater(const std::string& libraryDirectory);

    Updater(const Updater&) = delete;
    Updater& operator=(const Updater&) = delete;

    bool isAvailable() const { return controller_ != nullptr; }
    // Asks the plugin for a user-initiated check; nothing when unavailable.
    void checkForUpdates();

    // The application's private library directory (<bindir>/../<libdir>/lumora), or empty when the executable's
    // own path is unknown.
    static std::string privateLibraryDirectory();

private:
    LumoraUpdaterController* controller_ = nullptr;
    LumoraUpdaterControllerCheckForUpdatesFn checkForUpdates_ = nullptr;
};

}  // namespace Lumora
